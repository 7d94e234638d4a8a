#include "Socket/SslOptions.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace Veltro::Ravelo {

namespace {

/// A zero-filled buffer with room for a NUL; null for a negative length or without memory.
std::unique_ptr<char[]> makeBuffer(int length) {
    if (length < 0) return nullptr;
    return std::unique_ptr<char[]>(new (std::nothrow) char[static_cast<std::size_t>(length) + 1]());
}

int lengthOf(const void* text) {
    return text != nullptr ? static_cast<int>(std::strlen(static_cast<const char*>(text))) : 0;
}

}  // namespace

bool SSslOptions::applyCiphers(SSL* ssl, const char* standard) const {
    return SslContext::setCipherList(ssl, m_cipher_type == 1 ? m_cipher_list.get() : standard, standard);
}

int SSslOptions::setCert(int type, void* x509) {
    m_cert_type = static_cast<std::uint32_t>(type);
    if (x509 != m_x509.get()) m_x509.reset(static_cast<CSslX509*>(x509));
    return 0;
}

int SSslOptions::takeCipherList(int type, void* list) {
    m_cipher_type = static_cast<std::uint32_t>(type);
    if (type == 1 && list != m_cipher_list.get()) m_cipher_list.reset(static_cast<char*>(list));
    return 0;
}

int SSslOptions::copyCipherList(int type, const void* list, int length) {
    m_cipher_type = static_cast<std::uint32_t>(type);
    if (type != 1) return 0;
    m_cipher_list = list != nullptr ? makeBuffer(length) : nullptr;
    if (m_cipher_list == nullptr) return -1;
    const auto* text = static_cast<const char*>(list);
    std::copy(text, std::find(text, text + length, '\0'), m_cipher_list.get());
    return 0;
}

int SSslOptions::setTimeout(int type, const void* value, int counts_for) {
    m_timeout_type = static_cast<std::uint32_t>(type);
    if (type != counts_for) return 0;
    if (value == nullptr) return -1;
    m_handshake_timeout = static_cast<std::int32_t>(optionNumber(value));
    return 0;
}

int SSslOptions::setPassword(const void* text) {
    return setPassword(text, lengthOf(text));
}

int SSslOptions::setPassword(const void* bytes, int length) {
    m_key_passwd_len = 0;
    m_key_passwd = bytes != nullptr ? makeBuffer(length) : nullptr;
    if (m_key_passwd == nullptr) return -1;
    std::memcpy(m_key_passwd.get(), bytes, static_cast<std::size_t>(length));
    m_key_passwd_len = length;
    return 0;
}

std::optional<int> SSslOptions::setSized(int option, int type, const void* value, int length) {
    switch (option) {
        case SslOptCipherList:
            return copyCipherList(type, value, length);
        case SslOptKeyPasswd:
            return setPassword(value, length);
        default:
            return std::nullopt;
    }
}

std::uint32_t optionNumber(const void* value) {
    std::uint32_t number = 0;
    if (value != nullptr) std::memcpy(&number, value, sizeof(number));
    return number;
}

int copyOptionText(std::unique_ptr<char[]>* to, const char* text) {
    const int length = lengthOf(text);
    *to = text != nullptr ? makeBuffer(length) : nullptr;
    if (*to == nullptr) return -1;
    std::memcpy(to->get(), text, static_cast<std::size_t>(length));
    return 0;
}

}  // namespace Veltro::Ravelo
