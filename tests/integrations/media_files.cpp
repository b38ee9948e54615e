#include "media_files.h"

#include "system/support_process.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace support {

namespace {

struct Recipe
{
    const char* name;
    const char* contentType;
    std::vector<std::string> video; // empty: sound alone
    std::vector<std::string> audio;
};

// Noise keeps the encoders from making the files small. Key frames every half a second: seeks have somewhere to go.
const std::vector<Recipe>& recipes()
{
    static const std::vector<Recipe> all = {
        {"song.mp3",
         "audio/mpeg",
         {},
         {"-c:a", "libmp3lame", "-b:a", "256k", "-id3v2_version", "3", "-metadata", "title=Rising Tone",
          "-metadata", "artist=Sine"}},
        {"song.ogg", "audio/ogg", {}, {"-c:a", "libvorbis", "-q:a", "9"}},
        {"song.flac", "audio/flac", {}, {"-c:a", "flac", "-sample_fmt", "s16"}},
        {"film.mp4",
         "video/mp4",
         {"-c:v", "mpeg4", "-b:v", "800k", "-g", "12"},
         {"-c:a", "aac", "-b:a", "128k"}},
        {"film.mkv",
         "video/x-matroska",
         {"-c:v", "libx264", "-preset", "veryfast", "-pix_fmt", "yuv420p", "-b:v", "800k", "-g", "12"},
         {"-c:a", "libvorbis", "-q:a", "5"}},
        {"film.ts",
         "video/mp2t",
         {"-c:v", "mpeg2video", "-b:v", "1000k", "-g", "12"},
         {"-c:a", "mp2", "-b:a", "192k"}},
    };
    return all;
}

std::vector<std::string> commandFor(const Recipe& recipe, const std::string& file)
{
    std::vector<std::string> command = {"ffmpeg", "-nostdin", "-v", "error", "-y"};
    const auto add = [&command](const std::vector<std::string>& words) {
        command.insert(command.end(), words.begin(), words.end());
    };
    if (!recipe.video.empty()) {
        add({"-f", "lavfi", "-i",
             "testsrc2=size=320x240:rate=25:duration=10,noise=alls=20:all_seed=7:allf=t"});
    }
    add({"-f", "lavfi", "-i", "aevalsrc=0.4*sin(2*PI*(220+40*t)*t)+0.1*random(0):s=44100:d=10", "-ac", "2"});
    add(recipe.video);
    add(recipe.audio);
    command.push_back(file);
    return command;
}

// Held by whoever makes the files; other processes wait for it.
class FolderLock
{
public:
    explicit FolderLock(const std::string& file)
        : m_fd(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH))
    {
        if (m_fd < 0 || flock(m_fd, LOCK_EX) != 0) {
            throw std::system_error(errno, std::generic_category(), file);
        }
    }
    ~FolderLock() { close(m_fd); }
    FolderLock(const FolderLock&) = delete;
    FolderLock& operator=(const FolderLock&) = delete;

private:
    int m_fd;
};

// A file that is there was made by this command, which lies beside it; it comes whole or not at all.
void make(const Recipe& recipe, const std::string& path)
{
    std::string command;
    for (const std::string& word : commandFor(recipe, recipe.name)) {
        command += word + '\n';
    }
    const std::string madeBy = path + ".command";
    if (access(path.c_str(), R_OK) == 0 && readFile(madeBy) == command) {
        return;
    }
    const std::filesystem::path half =
        std::filesystem::path(path).parent_path() / (std::string("half-") + recipe.name);
    const Result made = runToEnd(commandFor(recipe, half.string()));
    if (made.status != 0) {
        throw std::runtime_error(std::string("ffmpeg makes no ") + recipe.name + ": " + made.err);
    }
    std::filesystem::remove(madeBy);
    std::filesystem::rename(half, path);
    std::ofstream(madeBy) << command;
}

std::vector<MediaFile> makeAll()
{
    const std::string folder = MEDIA_FOLDER;
    std::filesystem::create_directories(folder);
    const FolderLock lock(folder + "/lock");
    std::vector<MediaFile> files;
    for (const Recipe& recipe : recipes()) {
        files.push_back({recipe.name, folder + "/" + recipe.name, recipe.contentType, !recipe.video.empty()});
        make(recipe, files.back().path);
    }
    return files;
}

} // namespace

const std::vector<MediaFile>& mediaFiles()
{
    static const std::vector<MediaFile> files = makeAll();
    return files;
}

const MediaFile& mediaFile(const std::string& name)
{
    const auto found = std::find_if(mediaFiles().begin(), mediaFiles().end(),
                                    [&name](const MediaFile& file) { return file.name == name; });
    if (found == mediaFiles().end()) {
        throw std::runtime_error("no media file " + name);
    }
    return *found;
}

} // namespace support
