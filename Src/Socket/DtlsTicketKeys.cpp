#include "Socket/DtlsTicketKeys.h"

#include <openssl/rand.h>
#include <openssl/ssl.h>

#include "Log.h"
#include "Socket/OpenSslTypes.h"

namespace Veltro::Ravelo {

namespace {

/// How many bytes of keys OpenSSL wants; 0 if it cannot say.
std::size_t wantedSize() {
    const TSslContext context(SSL_CTX_new(DTLS_method()));
    if (context == nullptr) return 0;
    const long size = SSL_CTX_get_tlsext_ticket_keys(context.get(), nullptr, 0);
    return size > 0 ? static_cast<std::size_t>(size) : 0;
}

}  // namespace

CDtlsTicketKeys& CDtlsTicketKeys::shared() {
    static CDtlsTicketKeys keys;
    return keys;
}

int CDtlsTicketKeys::Init() {
    const Plinth::CLockGuard guard(m_mutex);
    if (Size() != 0) return 0;
    const CErrorQueueKeeper errors;
    const std::size_t size = wantedSize();
    if (size == 0 || size > m_block.size() || RAND_bytes(m_block.data(), static_cast<int>(size)) != 1) {
        RAVELO_LOG(Plinth::LOG_LEVEL_ERROR, "%s : Generate SESSION TICKET KEY  failed\n", __func__);
        return -1;
    }
    m_size.store(size, std::memory_order_release);
    return 0;
}

int CDtlsTicketKeys::Install(ssl_ctx_st* ctx) const {
    const std::size_t size = Size();
    if (size == 0) return -1;
    // The macro asks for a pointer to what it only reads.
    auto* block = const_cast<unsigned char*>(m_block.data());
    return SSL_CTX_set_tlsext_ticket_keys(ctx, block, static_cast<long>(size)) == 1 ? 0 : -1;
}

}  // namespace Veltro::Ravelo
