/*
 * Character sets: conversion of text that came from the network and may be anything.
 */
#ifndef MDP_CHARSET_H
#define MDP_CHARSET_H

#include <string>

/*
 * Converts ISO 8859-1 text to UTF-8. Every byte has a meaning in ISO 8859-1, so the conversion cannot fail:
 * bytes 0x80 to 0xff become two bytes (control codes 0x80 to 0x9f included), all others stay as they are,
 * NUL included. Throws std::bad_alloc only.
 */
std::string mdpLatin1ToUtf8(const std::string& latin1);

#endif
