// The payload codec shared by the fetcher (server payloads arrive in base64)
// and by the dispatcher and purger (what they hand to other services is
// base64 too): standard RFC 4648 alphabet with "=" padding, one line, no
// line breaks. Used on the worker thread.
#ifndef NYX_MESSAGING_BASE64_H
#define NYX_MESSAGING_BASE64_H

#include <cstddef>
#include <memory>
#include <string>

// Returns the base64 text of length bytes at data, on a single line. Throws
// std::runtime_error only when OpenSSL cannot allocate its BIO chain.
std::string encodeBase64(const unsigned char* data, size_t length);

// Decodes text (read as a NUL-terminated string, so it ends at its first zero
// byte) into a new array with room for text.size() * 3 / 4 bytes, and stores
// in length the decoder's own result: the number of bytes decoded, or 0 or
// less when text is not valid base64. Never throws for bad input; the caller
// decides what a non-positive length means. Throws std::runtime_error only
// when OpenSSL cannot allocate its BIO chain.
std::unique_ptr<unsigned char[]> decodeBase64(const std::string& text, int& length);

#endif  // NYX_MESSAGING_BASE64_H
