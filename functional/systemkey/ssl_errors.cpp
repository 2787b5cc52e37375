/*
 * The cipher library's error queue, as the module's files report it. Below
 * the key file, the bootstrap key and the cipher strings, which all use it.
 */
#include "systemkey_internal.h"

#include <openssl/err.h>

void clearStaleErrors(void)
{
    if (ERR_peek_error() != 0) {
        ERR_clear_error();
    }
}

const char* sslErrorText(char* buf, size_t size)
{
    const unsigned long e = ERR_peek_error();
    if (e == 0) {
        buf[0] = '\0';
    } else {
        ERR_error_string_n(e, buf, size);
    }
    clearStaleErrors();
    return buf;
}
