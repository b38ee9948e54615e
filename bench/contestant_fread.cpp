// The C library's buffered file: what a local file costs at least.
#include "loads.h"

#include <cstdio>
#include <stdexcept>

namespace {

class FileStream : public bench::Stream
{
public:
    void open(const std::string& url) override
    {
        m_file.reset(std::fopen(url.c_str(), "rb"));
        if (m_file == nullptr) {
            throw std::runtime_error("cannot open " + url);
        }
    }
    std::size_t read(unsigned char* block, std::size_t size) override
    {
        return std::fread(block, 1, size, m_file.get());
    }
    void seek(long long offset, std::size_t /*room*/) override { fseeko(m_file.get(), offset, SEEK_SET); }
    void skip(std::size_t count) override { fseeko(m_file.get(), static_cast<off_t>(count), SEEK_CUR); }
    void close() override { m_file.reset(); }

private:
    struct Closer
    {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    std::unique_ptr<std::FILE, Closer> m_file;
};

} // namespace

int main(int argc, char** argv)
{
    return bench::runContestant("fread",
                                bench::pullLoads([](const bench::Options&) -> std::unique_ptr<bench::Stream> {
                                    return std::make_unique<FileStream>();
                                }),
                                argc, argv);
}
