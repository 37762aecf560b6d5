#include "messaging/Base64.h"

#include <openssl/bio.h>
#include <openssl/buffer.h>
#include <openssl/err.h>
#include <openssl/evp.h>

#include <climits>
#include <stdexcept>

#include "daemon/common/COwners.h"

namespace {

// Throws with the operation's name and OpenSSL's own text when a BIO could
// not be made.
BIO* checkBio(BIO* bio, const char* operation) {
  if (bio == nullptr) {
    char text[256] = "unknown error";
    unsigned long code = ERR_get_error();
    if (code != 0) {
      ERR_error_string_n(code, text, sizeof(text));
    }
    throw std::runtime_error(std::string(operation) + ": " + text);
  }
  return bio;
}

// A base64 filter pushed onto sink, without line breaks. Each BIO is owned
// from the moment it exists; the finished chain is released as a whole with
// BIO_free_all.
BioChainOwner makeBase64Chain(BIO* sink) {
  BioChainOwner sinkOwner(sink);
  BioChainOwner filter(checkBio(BIO_new(BIO_f_base64()), "BIO_new(BIO_f_base64)"));
  BIO_set_flags(filter.get(), BIO_FLAGS_BASE64_NO_NL);
  BIO_push(filter.get(), sinkOwner.release());
  return filter;
}

}  // namespace

std::string encodeBase64(const unsigned char* data, size_t length) {
  BioChainOwner chain = makeBase64Chain(checkBio(BIO_new(BIO_s_mem()), "BIO_new(BIO_s_mem)"));
  if (length > 0) {
    if (length > static_cast<size_t>(INT_MAX) ||
        BIO_write(chain.get(), data, static_cast<int>(length)) != static_cast<int>(length)) {
      throw std::runtime_error("BIO_write: base64 encoding failed");
    }
  }
  (void)BIO_flush(chain.get());
  BUF_MEM* buffer = nullptr;
  BIO_get_mem_ptr(BIO_next(chain.get()), &buffer);
  if (buffer == nullptr) {
    return std::string();
  }
  return std::string(buffer->data, buffer->length);
}

std::unique_ptr<unsigned char[]> decodeBase64(const std::string& text, int& length) {
  const size_t capacity = text.size() * 3 / 4;
  std::unique_ptr<unsigned char[]> bytes(new unsigned char[capacity]);
  BioChainOwner chain =
      makeBase64Chain(checkBio(BIO_new_mem_buf(text.c_str(), -1), "BIO_new_mem_buf"));
  // One read. Asking for no more than the array holds returns the same bytes
  // as asking for text.size() (base64 never decodes to more than three
  // quarters of its length) and cannot write past the array whatever the
  // input.
  const size_t request = capacity < static_cast<size_t>(INT_MAX) ? capacity : INT_MAX;
  length = BIO_read(chain.get(), bytes.get(), static_cast<int>(request));
  return bytes;
}
