/*
 * How a function on texts hands its result to a C caller's buffer: whole, or not at all.
 */
#ifndef MDC_HLP_TEXT_BUFFER_H
#define MDC_HLP_TEXT_BUFFER_H

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <exception>
#include <string>

namespace md {

/*
 * Copies text up to its first NUL, and a NUL. 0, or -ENOMEM when size bytes are too few, and nothing is
 * written.
 */
inline int copyToBuffer(const std::string& text, char* buffer, int size)
{
    const std::size_t length = std::strlen(text.c_str());
    if (size <= 0 || length >= static_cast<std::size_t>(size)) {
        return -ENOMEM;
    }
    std::memcpy(buffer, text.c_str(), length + 1);
    return 0;
}

/*
 * Body of a C function: function(input) into the buffer. -EINVAL when input or buffer is null; never throws.
 */
template <class Function>
int transformToBuffer(const char* input, char* buffer, int size, Function function)
{
    if (input == nullptr || buffer == nullptr) {
        return -EINVAL;
    }
    try {
        return copyToBuffer(function(input), buffer, size);
    } catch (const std::exception&) {
        return -ENOMEM; // a string fails for want of memory, or because no memory could hold it
    }
}

} // namespace md

#endif
