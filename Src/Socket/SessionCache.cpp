#include <Ravelo/SessionCache.h>

#include <cstdint>
#include <ctime>
#include <new>

#include "Socket/SessionCacheRecord.h"
#include "Socket/SslSetup.h"

namespace Veltro::Ravelo {

namespace {

/// Whether a session has outlived its time-out. Times of day are compared as 32-bit values.
bool hasExpired(const SSL_SESSION* session) {
    const auto now = static_cast<std::uint32_t>(std::time(nullptr));
    const auto created = static_cast<std::uint32_t>(SSL_SESSION_get_time(session));
    const auto age = static_cast<std::int32_t>(now - created);
    return SSL_SESSION_get_timeout(session) < age;
}

}  // namespace

int SSessionCacheRecord::purge() {
    std::erase_if(entries, [](const auto& entry) { return hasExpired(entry.second.session.get()); });
    return 0;
}

int SSessionCacheRecord::known_references(const SSL_SESSION* session) const {
    int known = 0;
    for (const auto& [key, entry] : entries) {
        if (entry.session.get() == session) known += entry.references;
    }
    return known;
}

int SSessionCacheRecord::store(SSL_SESSION* session, const char* key) {
    try {
        SEntry& entry = entries[key];
        if (entry.session.get() == session) {
            SSL_SESSION_up_ref(session);
            ++entry.references;
            return 0;
        }
        entry = SEntry{};
        SSL_SESSION_up_ref(session);
        entry.session.reset(session);
        return 0;
    } catch (const std::bad_alloc&) {
        return -1;
    }
}

CSessionCache::CSessionCache() : m_internal(nullptr) {
    if (SslSetup::keepPastExit() == 0) m_internal = new (std::nothrow) SSessionCacheRecord;
}

CSessionCache::~CSessionCache() {
    delete m_internal;
}

unsigned int CSessionCache::NewNumber() {
    if (m_internal == nullptr) return 1;
    const Plinth::CLockGuard guard(m_internal->mutex);
    if (m_internal->m_next_number == 0) m_internal->m_next_number = 1;
    return m_internal->m_next_number++;
}

int CSessionCache::Add(ssl_session_st* session, const char* key) {
    if (m_internal == nullptr || session == nullptr || key == nullptr) return -1;
    const Plinth::CLockGuard guard(m_internal->mutex);
    m_internal->purge();
    return m_internal->store(session, key);
}

ssl_session_st* CSessionCache::Get(const char* key) {
    if (m_internal == nullptr || key == nullptr) return nullptr;
    const Plinth::CLockGuard guard(m_internal->mutex);
    m_internal->purge();
    const auto found = m_internal->entries.find(key);
    if (found == m_internal->entries.end()) return nullptr;
    SSL_SESSION* session = found->second.session.get();
    SSL_SESSION_up_ref(session);
    return session;
}

int CSessionCache::Remove(const char* key) {
    if (m_internal == nullptr || key == nullptr) return -1;
    const Plinth::CLockGuard guard(m_internal->mutex);
    m_internal->purge();
    const auto found = m_internal->entries.find(key);
    if (found == m_internal->entries.end()) return -1;
    const int remaining = m_internal->known_references(found->second.session.get()) - 1;
    m_internal->entries.erase(found);
    return remaining;
}

}  // namespace Veltro::Ravelo
