// Media that players play: ten seconds of tone and test picture in each of the containers that matter, made by FFmpeg.
#pragma once

#include <string>
#include <vector>

namespace support {

struct MediaFile
{
    std::string name;        // without folder
    std::string path;        // absolute
    std::string contentType; // as a web server tells it
    bool hasPicture;
};

// song.mp3 (begins with an ID3 tag), song.ogg, song.flac, film.mp4 (its index at the end), film.mkv, film.ts; each larger
// than a receive buffer holds by default, so that seeks ask the server again. They lie in a folder of the build and are
// made by whichever test comes first, once; others wait. Throws when FFmpeg is missing or fails.
const std::vector<MediaFile>& mediaFiles();

// The one of that name.
const MediaFile& mediaFile(const std::string& name);

} // namespace support
