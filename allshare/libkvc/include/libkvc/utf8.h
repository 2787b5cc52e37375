/**
 * @file
 * UTF-8 case mapping, in place and bounded by a byte length.
 *
 * The mapped form of a string can be longer than the original ("İ" lowers to
 * three bytes); when it would not fit in the given length the string is left
 * as it is. Invalid UTF-8 passes through unchanged. Nothing is ever written
 * at or after s[iLen].
 */
#ifndef LIBKVC_UTF8_H
#define LIBKVC_UTF8_H

#pragma GCC visibility push(default)

#ifdef __cplusplus
extern "C" {
#endif

///@{
/** Replaces the first iLen bytes of s (or up to its terminator) by their lower-
 * or upper-case form when that is no longer than iLen bytes. The result is
 * terminated when it is shorter than iLen. */
void kvclib_utf8tolower(char* s, int iLen);
void kvclib_utf8toupper(char* s, int iLen);
///@}

/** Compares the lower-case forms of the first n bytes of a and b, byte-wise
 * over n bytes. If a working buffer cannot be allocated the strings are
 * reported equal (0): callers use it for matching, not for access control. */
int kvclib_utf8strncasecmp(const char* a, const char* b, unsigned int n);

#ifdef __cplusplus
}
#endif

#pragma GCC visibility pop
#endif
