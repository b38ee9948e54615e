// Where the bytes go: standard output or a file.
#pragma once

#include "failure.h"

#include <cstddef>
#include <string>

namespace mdch {

class Output
{
public:
    // path: empty for standard output. keep: what the file holds stays, and bytes go behind it.
    explicit Output(std::string path, bool keep = false);
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    // Each: true, or false with the failure. open refuses to overwrite the file that is being read
    // (source: its path; an address that is no path does no harm).
    bool open(const std::string& source, Failure& failure);
    bool write(const unsigned char* data, std::size_t count, Failure& failure);
    bool close(Failure& failure);

private:
    std::string what() const;

    std::string m_path;
    bool m_keep;
    int m_fd = -1;
};

} // namespace mdch
