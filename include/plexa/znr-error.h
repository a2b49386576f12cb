#ifndef PLEXA_ZNR_ERROR_H
#define PLEXA_ZNR_ERROR_H

/// @file
/// Error codes, their names and texts, assertions and start-up.
///
/// Every operation that can fail returns one 64-bit error code, 0 for
/// success. Bits 63-62 hold the kind (0 an `errno` value, 1 an
/// operating-system error, on Linux an `errno` value too, 2 a library error,
/// 3 not produced by the library), bits 61-32 the domain (the library always
/// writes 1) and bits 31-0 the error number. Callers compare codes with 0 or
/// with the library's named codes, and pass them on unchanged.

#include <plexa/znr-export.h>

#include <cstdint>
#include <string>
#include <system_error>

class ZNRString;

/// Kind and domain bits of an error code, and the all-ones id that creating
/// calls return on failure.
enum : std::uint64_t {
    ZNR_ERROR_NONE = 0,                          ///< Success.
    ZNR_ERROR_KIND_CRT = 0x0000000100000000ULL,  ///< Kind 0, domain 1: an `errno` value.
    ZNR_ERROR_KIND_SYS = 0x4000000100000000ULL,  ///< Kind 1, domain 1: an operating-system error.
    ZNR_ERROR_KIND_USER = 0x8000000100000000ULL, ///< Kind 2, domain 1: a library error.
    ZNR_ERROR_FAILED_ID = 0xFFFFFFFFFFFFFFFFULL, ///< Id returned by a creating call that failed.
};

/// The library's errors, one `X(number, NAME, meaning)` per line, in
/// increasing number order; the README's "Errors" table lists them. Numbers
/// never change and missing ones are not in use.
///
/// Each line defines the code `ZNR_ERROR_<NAME>` (a `constexpr
/// std::uint64_t` of kind 2, domain 1) that operations return and host code
/// compares with: `if (rc == ZNR_ERROR_TIMED_OUT) ...`. The same line gives
/// the name that ZNRGetErrorName() returns and the meaning that
/// ZNRErrorCategory() gives as message. Host code may expand the list with
/// its own `X` to build tables of its own.
#define ZNR_ERROR_LIST(X) \
    X(1, INVALID_PARAM, "an argument out of range or malformed") \
    X(2, UNKNOWN_OPTION_ID, "a logger writer option id that does not exist") \
    X(3, BAD_SOCKET_TYPE, "a socket type that does not allow the operation") \
    X(4, END_OF_STREAM, "the end of the peer's stream") \
    X(6, NO_DESTINATION, "a datagram write with no peer to go to") \
    X(8, SEND_OVERFLOW, "a send queue that would pass its maximum") \
    X(9, RECV_OVERFLOW, "a receive buffer that would pass its maximum") \
    X(11, NOT_READY, "an object not set up, or already torn down") \
    X(12, NO_DEVICE, "a device id the reactor does not hold") \
    X(17, TIMED_OUT, "a wait for an operation that timed out") \
    X(18, NOT_DIRECTORY, "a path that exists and is not a directory") \
    X(19, PACK_OVER_LIMIT, "a pack that would pass its maximum size") \
    X(20, PACK_RANGE, "a replace position outside the pack") \
    X(21, PACK_TEXT, "text that cannot be converted or is too long to pack") \
    X(22, UNPACK_SHORT, "too little data left to unpack") \
    X(23, UNPACK_TEXT, "a malformed packed text field") \
    X(24, TRANS_RESERVED, "a trans-message header whose reserved field is above 15") \
    X(25, TRANS_COMPRESS_FLAG, "a trans-message header whose compress flag is neither 0 nor 1") \
    X(26, TRANS_LENGTH, "a trans-message length above 0xFFFFFF") \
    X(27, TRANS_NO_HEADER, "a trans message with no header set") \
    X(28, TRANS_COMPRESS, "a trans-message body that could not be compressed") \
    X(29, TRANS_BODY, \
      "a trans-message body that is not valid compressed data or inflates too large") \
    X(30, NO_REACTOR, "a reactor id the manager does not hold") \
    X(33, LINE_TEXT, "a text line that cannot be converted to UTF-8") \
    X(37, NOT_SUPPORTED, "an operation the device does not support") \
    X(38, SEND_NO_DEVICE, "a device id to send to that the reactor does not hold") \
    X(39, QUEUE_FULL, "a reactor's full loop-event queue") \
    X(40, ID_OVERFLOW, "a new device id that wrapped onto a registered device") \
    X(42, POOL_INIT, "block pool parameters of another kind, or already used") \
    X(44, POOL_EXHAUSTED, "a size no block of the pool can serve") \
    X(46, POOL_FOREIGN, "a pointer the pool did not give out") \
    X(48, BAD_OFFSET, "a consumed offset outside the handler's receive buffer") \
    X(49, TOO_LARGE, "a size past what the buffer or codec can hold") \
    X(50, NO_MEMORY, "an allocation the allocator could not serve") \
    X(51, BAD_BASE64, "text that is not Base64") \
    X(52, LOAD_FAILED, "a library or symbol the dynamic loader could not load") \
    X(53, UNKNOWN_OPTION, "an unknown or ambiguous command-line option") \
    X(54, OPTION_ARGUMENT, "a command-line option argument that is missing or not allowed") \
    X(55, CONTROL_CHAR, "a text field holding CR, LF or NUL") \
    X(56, UNRESOLVED_HOST, "a host name or address that does not resolve")

/// @cond
#define ZNR_ERROR_CONSTANT(number, name, meaning) \
    constexpr std::uint64_t ZNR_ERROR_##name = ZNR_ERROR_KIND_USER | number;
ZNR_ERROR_LIST(ZNR_ERROR_CONSTANT)
#undef ZNR_ERROR_CONSTANT
/// @endcond

/// Builds an `errno` code (kind 0, domain 1), as the file helpers report it.
constexpr std::uint64_t ZNRCrtError(int err) {
    return ZNR_ERROR_KIND_CRT | static_cast<std::uint32_t>(err);
}
/// Builds an operating-system code (kind 1, domain 1); on Linux `err` is an
/// `errno` value.
constexpr std::uint64_t ZNRSysError(int err) {
    return ZNR_ERROR_KIND_SYS | static_cast<std::uint32_t>(err);
}
/// Builds a library code (kind 2, domain 1) from its number.
constexpr std::uint64_t ZNRUserError(std::uint32_t num) {
    return ZNR_ERROR_KIND_USER | num;
}
/// The kind of a code, 0 to 3.
constexpr unsigned int ZNRErrorKind(std::uint64_t code) {
    return static_cast<unsigned int>(code >> 62);
}
/// The domain of a code (bits 61-32).
constexpr std::uint32_t ZNRErrorDomain(std::uint64_t code) {
    return static_cast<std::uint32_t>((code >> 32) & 0x3FFFFFFFu);
}
/// The error number of a code (bits 31-0).
constexpr std::uint32_t ZNRErrorNumber(std::uint64_t code) {
    return static_cast<std::uint32_t>(code);
}

/// Starts what the network layer needs: nothing on Linux. Any thread, any
/// number of times.
/// @return 0, or an operating-system code when the platform's start fails.
ZNR_API std::uint64_t ZNRInit();

/// Replaces the content of `*out` with the text of `code`: "No error" for 0,
/// the C runtime's text for kind 0, the system's text for kind 1, "A user
/// error was occured, domain=D errnum=N" for kind 2; kind 3 leaves `*out` as
/// it was. Any thread; `*out` stays the caller's.
/// @param code the error code.
/// @param out the string to fill; null does nothing.
ZNR_API void ZNRGetErrorMsg(std::uint64_t const& code, ZNRString* out);

/// The text of ZNRGetErrorMsg() in the narrow "chs" encoding, for log lines.
/// Any thread.
/// @param code the error code.
/// @return a new string, the caller's; empty for kind 3.
ZNR_API std::string ZNRGetErrorText(std::uint64_t code);

/// The symbolic name of a code. Any thread.
/// @param code the error code.
/// @return a static string, never null and never to be freed:
///   "ZNR_ERROR_NONE" for 0; for a library code of domain 1 listed in
///   ::ZNR_ERROR_LIST, its name ("ZNR_ERROR_TIMED_OUT"); for kinds 0 and 1,
///   the platform's name of the number ("ECONNREFUSED"); "unknown" for
///   everything else: kind 3, an unlisted library number, another domain,
///   or a system number the platform has no name for.
ZNR_API char const* ZNRGetErrorName(std::uint64_t code);

/// The category of library errors: name() is "plexa", message(n) the
/// meaning of library error number n from ::ZNR_ERROR_LIST, or "unknown
/// error" for a number not listed. Any thread; the object lives as long as
/// the library.
/// @return the one category object, which the caller must not free.
ZNR_API std::error_category const& ZNRErrorCategory();

/// The standard form of a code, for host code built on `std::error_code`.
/// 0 gives a success (default) code; kind 0 gives the number in
/// `std::generic_category()`; kind 1 the number in `std::system_category()`
/// (so it compares equal to the matching `std::errc`); a library code of
/// domain 1 its number in ZNRErrorCategory(). Anything else (kind 3, a
/// library code of another domain) gives -1 in ZNRErrorCategory(), which no
/// library error uses. Any thread. Inline: the standard categories are the
/// caller's own, as a runtime linked into each module has its own.
/// @param code the error code.
/// @return the error code, by value.
inline std::error_code ZNRMakeErrorCode(std::uint64_t code) {
    int const number = static_cast<int>(ZNRErrorNumber(code));
    if (code == 0) return std::error_code();
    if (ZNRErrorKind(code) == 0) return std::error_code(number, std::generic_category());
    if (ZNRErrorKind(code) == 1) return std::error_code(number, std::system_category());
    // -1 keeps a code of foreign origin from passing for a library error.
    bool const library = ZNRErrorKind(code) == 2 && ZNRErrorDomain(code) == 1;
    return std::error_code(library ? number : -1, ZNRErrorCategory());
}

/// When `condition` is false: writes "Assert failed, file(line):function @
/// condition_text" and a line break to standard error, stops in an attached
/// debugger, and aborts. Does nothing when `condition` is true. Any thread.
/// @param condition the checked condition.
/// @param condition_text the condition as written.
/// @param file source file of the check.
/// @param line source line of the check.
/// @param function function holding the check.
ZNR_API void ZNRAssert(bool condition, char const* condition_text, char const* file,
                       int line, char const* function);
/// Writes the same line as ZNRAssert() to standard error and returns. Any
/// thread; null texts print as empty.
/// @param condition_text the condition as written.
/// @param file source file of the check.
/// @param line source line of the check.
/// @param function function holding the check.
ZNR_API void ZNRLogAssert(char const* condition_text, char const* file, int line,
                          char const* function);
/// Stops in an attached debugger, then aborts the process. Any thread.
ZNR_API void ZNRBreak();
/// Stops in an attached debugger and returns (it prints no trace); returns
/// at once when none is attached. Any thread.
ZNR_API void ZNRBackTrace();

/// Checks `cond` with ZNRAssert(), quoting it with the current file, line
/// and function.
#define ZNR_ASSERT(cond) ZNRAssert(static_cast<bool>(cond), #cond, __FILE__, __LINE__, __func__)

#endif
