/**
 * @file
 * Masking of credentials in protocol text before it is logged, and the
 * decision whether key material may be logged at all.
 *
 * Each sanitiser writes `text` to `out`, replacing every match of its pattern
 * by a fixed prefix and one '.' per byte of the secret, so the record keeps
 * its shape and the secret's length but not its value:
 *
 * @verbatim
 *   streamStringReplaceOauthTokenParam  token="SECRET"           -> token="......"
 *   streamStringReplaceOauthTokenTag    <token>SECRET</token>    -> <token>......</token>
 *   streamStringReplaceOauthTokenJson   "token":"SECRET"         -> "token":"......"
 *   streamStringReplaceSdpKeys          inline:SECRET            -> inline......   (colon dropped)
 *   streamStringReplaceDebugKeys        keys=SECRET              -> keys=......
 * @endverbatim
 *
 * The OAuth patterns are greedy: with several later quotes (closing tags) in
 * the text, everything up to the last one is masked. The key patterns also
 * take '|' and '^', so a lifetime suffix such as "|2^48" is masked with the
 * key.
 *
 * The decision argument:
 *  - key sanitisers: a value decides (true = write in clear); empty asks
 *    shouldLogCryptoKeys(false).
 *  - OAuth sanitisers: any value, true or false, writes in clear; only an
 *    empty decision masks. Callers that want masking pass boost::none.
 *
 * No sanitiser throws on content. Should the regular-expression engine give
 * up on some input (it throws on exhausted matching budgets), everything not
 * yet written is replaced by dots: an unreadable record is better than a
 * leaked secret.
 *
 * All functions are safe from any thread.
 */
#ifndef KVLOG_KVLOG_SANITISER_H
#define KVLOG_KVLOG_SANITISER_H

#include <boost/optional.hpp>

#include <cstdint>
#include <ostream>
#include <string>

#pragma GCC visibility push(default)

namespace kvlog {

/** A decision that may be empty: the sanitisers' last argument. */
typedef boost::optional<bool> bool_opt_t;

/** Marker whose existence (any file type) puts the device in certification
 * mode, and the variant used by self-tests. */
extern const char* const CERT_MODE_MARKER_PATH;      ///< "/tmp/cert-mode-logging"
extern const char* const CERT_MODE_TEST_MARKER_PATH; ///< "/tmp/temp-test-file"

/** True when the marker (the test one if `test`) exists; tested anew on every
 * call. An unreadable status counts as absent. */
bool isCertModeLoggingEnabled(bool test);

/** False in certification mode; otherwise true exactly when the logger
 * "developer.cryptokeys" is effectively at TRACE. */
bool shouldLogCryptoKeys(bool test);

/** Writes text to out with every token="..." value masked, unless `decision` holds a value (see the
 * file note). */
void streamStringReplaceOauthTokenParam(std::ostream& out, const std::string& text, bool_opt_t decision);
/** Writes text to out with every `<token>...</token>` content masked, unless `decision` holds a
 * value. */
void streamStringReplaceOauthTokenTag(std::ostream& out, const std::string& text, bool_opt_t decision);
/** Writes text to out with every "token":"..." value masked, unless `decision` holds a value. */
void streamStringReplaceOauthTokenJson(std::ostream& out, const std::string& text, bool_opt_t decision);
/** Writes text to out with every inline:key masked ("inline" and one dot per key byte), unless
 * `decision`, or shouldLogCryptoKeys(false) when it is empty, allows keys in clear. */
void streamStringReplaceSdpKeys(std::ostream& out, const std::string& text, bool_opt_t decision);
/** Writes text to out with every keys=value masked, unless `decision`, or
 * shouldLogCryptoKeys(false) when it is empty, allows keys in clear. */
void streamStringReplaceDebugKeys(std::ostream& out, const std::string& text, bool_opt_t decision);

///@{
/** The stream functions of the same name with an empty decision (masking). */
std::string stringReplaceOauthTokenTag(const std::string& text);
std::string stringReplaceOauthTokenJson(const std::string& text);
///@}

/** Raw bytes for a log record, 16 per line:
 *
 * @verbatim
 *   0000  16 03 01 00 a5 01 00 00  a1 03 03 5b 3c 2e 00 ff  |...........[<...|
 *   0010  41 42                                             |AB|
 * @endverbatim
 *
 * The offset is hexadecimal, four digits (more when the length needs them);
 * the text column shows printable ASCII and '.' for everything else. Each
 * line, the last included, ends with '\n'. A null pointer or a length of 0
 * writes nothing. */
void hexDumpToStream(std::ostream& out, const unsigned char* data, uint32_t length);
/** The hexDumpToStream text as a string (empty for null data or length 0). */
std::string hexDumpToString(const unsigned char* data, uint32_t length);

} // namespace kvlog

#pragma GCC visibility pop
#endif
