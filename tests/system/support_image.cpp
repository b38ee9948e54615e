#include "support_image.h"

#include "support_process.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/loop.h>
#include <sched.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <system_error>
#include <unistd.h>

namespace support {

namespace {

class Descriptor
{
public:
    Descriptor(const std::string& path, int flags) : m_number(open(path.c_str(), flags | O_CLOEXEC)) {}
    ~Descriptor()
    {
        if (m_number >= 0) {
            ::close(m_number);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return m_number; }

private:
    int m_number;
};

std::system_error failure(const std::string& what)
{
    return {errno, std::generic_category(), what};
}

// Puts a file behind a free loop device, which frees itself when nobody uses it any more. The device stays in use while
// the function that is handed its name runs.
template <class Function>
void withLoopDevice(const std::string& file, bool isReadOnly, Function use)
{
    const int access = isReadOnly ? O_RDONLY : O_RDWR;
    const Descriptor backing(file, access);
    const Descriptor control("/dev/loop-control", O_RDWR);
    for (int tries = 100; tries > 0; --tries) {
        const int number = ioctl(control.get(), LOOP_CTL_GET_FREE);
        if (number < 0) {
            throw failure("no free loop device");
        }
        const std::string name = "/dev/loop" + std::to_string(number);
        const Descriptor device(name, access);
        if (ioctl(device.get(), LOOP_SET_FD, backing.get()) != 0) {
            if (errno == EBUSY) { // somebody else took it first
                continue;
            }
            throw failure(name);
        }
        loop_info64 info{};
        info.lo_flags = LO_FLAGS_AUTOCLEAR;
        if (ioctl(device.get(), LOOP_SET_STATUS64, &info) != 0) {
            const int code = errno;
            ioctl(device.get(), LOOP_CLR_FD);
            throw std::system_error(code, std::generic_category(), name);
        }
        use(name);
        return;
    }
    throw std::runtime_error("all loop devices are taken again and again");
}

} // namespace

std::string separateMounts()
{
    const Descriptor control("/dev/loop-control", O_RDWR);
    const int number = ioctl(control.get(), LOOP_CTL_GET_FREE);
    if (number < 0 || Descriptor("/dev/loop" + std::to_string(number), O_RDWR).get() < 0) {
        return "no loop devices, or no right to use them";
    }
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return "no right to mounts of its own";
    }
    return "";
}

Image::Image(const std::string& uuid) : m_uuid(uuid), m_path(m_dir.file("image"))
{
    constexpr std::uintmax_t kSize = 8 << 20;
    m_dir.write("image", "");
    std::filesystem::resize_file(m_path, kSize);
    const Result made = runToEnd({"mkfs.ext4", "-q", "-F", "-U", uuid, m_path});
    if (made.status != 0) {
        throw std::runtime_error("mkfs.ext4: " + made.err);
    }
}

std::string Image::upperCaseUuid() const
{
    std::string text = m_uuid;
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::toupper(letter)); });
    return text;
}

MountedImage::MountedImage(const Image& image, unsigned long flags, const std::string& folderName)
    : m_place(std::filesystem::canonical(m_dir.makeDir(folderName)))
{
    withLoopDevice(image.path(), (flags & MS_RDONLY) != 0, [&](const std::string& device) {
        m_device = device;
        if (mount(device.c_str(), m_place.c_str(), "ext4", flags, nullptr) != 0) {
            throw failure("mounting " + device);
        }
    });
}

MountedImage::~MountedImage()
{
    umount2(m_place.c_str(), MNT_DETACH);
}

void MountedImage::write(const std::string& name, const std::string& content) const
{
    const std::filesystem::path path(m_place + "/" + name);
    std::filesystem::create_directories(path.parent_path());
    std::ofstream stream(path, std::ios::binary | std::ios::trunc);
    stream << content;
    stream.close();
    if (!stream) {
        throw std::runtime_error("cannot write " + path.string());
    }
}

void MountedImage::detach()
{
    if (umount2(m_place.c_str(), MNT_DETACH) != 0) {
        throw failure("unmounting " + m_place);
    }
}

} // namespace support
