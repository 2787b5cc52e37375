/**
 * @file
 * Base64 (RFC 4648 alphabet, "=" padding, no line breaks) with size checks.
 *
 * Contracts:
 *  1. The caller states the output capacity; nothing is written beyond it.
 *  2. Failures return -1 (or another negative count, see base64Decode) and log
 *     one error line under "developer.zel_crypto".
 *  3. A failed decode leaves the whole output capacity zeroed, so no partial
 *     plaintext survives.
 */
#ifndef SYSTEMKEY_BASE64_FUNCS_H
#define SYSTEMKEY_BASE64_FUNCS_H

#include <cstdint>

#pragma GCC visibility push(default)

/** (length + 2) / 3 * 4 + 1: the encoded length plus a terminating zero. */
int calcRequiredBase64EncodeBufferSize(uint64_t length);
/** (length + 3) / 4 * 3: the most bytes `length` characters decode to. */
int calcRequiredBase64DecodeBufferSize(uint64_t length);

/** Encodes inLen bytes (0 allowed) into `out` and terminates it. Returns the
 * number of characters, not counting the terminator, or -1 for a null
 * buffer, a negative length, or a capacity below
 * calcRequiredBase64EncodeBufferSize(inLen). */
__attribute__((warn_unused_result)) int base64Encode(const unsigned char* in, int inLen,
                                                     char* out, int outCap);

/** Decodes inLen characters into `out`. Returns the number of bytes, with the
 * trailing "=" padding discounted, or a negative value for a null buffer, a
 * negative length, a capacity below calcRequiredBase64DecodeBufferSize(inLen),
 * fewer than two characters before the padding, or text the decoder refuses.
 * Leading and trailing white space is ignored by the decoder. */
__attribute__((warn_unused_result)) int base64Decode(const char* in, int inLen,
                                                     unsigned char* out, int outCap);

#pragma GCC visibility pop
#endif
