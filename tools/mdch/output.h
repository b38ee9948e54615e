// Where the bytes go: standard output or a file.
#pragma once

#include "failure.h"

#include <cstddef>
#include <string>

namespace mdch {

class Output
{
public:
    // path: empty for standard output.
    explicit Output(std::string path);
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    // Each: true, or false with the failure. open refuses to overwrite the file that is being read
    // (source: its path; an address that is no path does no harm).
    bool open(const std::string& source, Failure& failure);
    bool write(const unsigned char* data, std::size_t count, Failure& failure);
    bool close(Failure& failure);

    // Whether the bytes go to a terminal, which a progress line would get in the way of.
    bool isTerminal() const;

private:
    std::string what() const;

    std::string m_path;
    int m_fd = -1;
};

} // namespace mdch
