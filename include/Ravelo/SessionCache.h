#pragma once

#include <Ravelo/Defs.h>

/// OpenSSL's SSL_SESSION.
struct ssl_session_st;

namespace Veltro::Ravelo {

struct SSessionCacheRecord;

/// Resumable TLS and DTLS sessions by a text key, so that a later connection to the same peer, or with the
/// same number, resumes instead of negotiating anew.
///
/// Entries leave by expiry (each session's own time-out), by replacement, by Remove(), or with the cache;
/// their count is not bounded. Expired entries go at the next Add(), Get() or Remove(), which therefore cost
/// time in proportion to the number of entries. Any thread may call; each call holds the cache's lock.
class RAVELO_API CSessionCache {
public:
    CSessionCache();
    /// Releases the sessions. No other call may be under way.
    ~CSessionCache();
    CSessionCache(const CSessionCache&) = delete;
    CSessionCache& operator=(const CSessionCache&) = delete;

    /// @return 1, 2, 3 and so on; after 4294967295 again 1, never 0.
    unsigned int NewNumber();

    /// Stores a session in place of the one that the key may have. Adding the very session that the key has
    /// takes a further reference, which the cache does not give back.
    /// @param session the cache takes a reference of its own; the caller keeps his.
    /// @param key copied up to its first NUL.
    /// @return 0, or -1 if an argument is null or there is no memory; the session's references then stay.
    int Add(ssl_session_st* session, const char* key);
    /// @return the key's session with a reference for the caller, who gives it back by SSL_SESSION_free(), or
    /// null if there is none or it has expired.
    ssl_session_st* Get(const char* key);
    /// Forgets a key and releases its reference.
    /// @return how many references to that session this cache still knows of: 0 unless it was added more than
    /// once. -1 if the key has no session.
    int Remove(const char* key);

private:
    friend struct SSessionCacheRecord;
    SSessionCacheRecord* m_internal;
};

}  // namespace Veltro::Ravelo
