/* Search in header lines. */
#ifndef MDC_HLP_TEXT_FIND_H
#define MDC_HLP_TEXT_FIND_H

namespace md {

/* An ASCII letter as a small one, in any locale; anything else as it is. */
inline char smallLetter(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/*
 * Where in text the name begins, whatever the case of its letters; null when it is nowhere. For the short lines of a
 * response, each of which is searched for several names: strcasestr prepares itself for more, and took a fifth of all
 * instructions of a small request.
 */
inline const char* findIgnoringCase(const char* text, const char* name)
{
    const char first = smallLetter(*name);
    for (; *text != '\0'; ++text) {
        if (smallLetter(*text) != first) {
            continue;
        }
        int same = 1;
        while (name[same] != '\0' && smallLetter(text[same]) == smallLetter(name[same])) {
            ++same;
        }
        if (name[same] == '\0') {
            return text;
        }
    }
    return nullptr;
}

} // namespace md

#endif
