#pragma once

#include <Plinth/Mutex.h>
#include <Ravelo/SessionCache.h>

#include <functional>
#include <map>
#include <string>

#include "Socket/OpenSslTypes.h"

namespace Veltro::Ravelo {

/// The private state of a CSessionCache.
struct SSessionCacheRecord {
    /// A key's session and the references that the cache has taken under the key; `session` gives back one of
    /// them.
    struct SEntry {
        TSession session;
        int references = 1;
    };
    // Looked up by texts that are not copied.
    using TEntries = std::map<std::string, SEntry, std::less<>>;

    Plinth::CMutex mutex;  ///< guards the fields below; held while OpenSSL counts and frees sessions
    TEntries entries PLINTH_GUARDED_BY(mutex);
    unsigned int m_next_number PLINTH_GUARDED_BY(mutex) = 1;

    /// An object's record; null if there was no memory for it.
    static SSessionCacheRecord* of(CSessionCache& object) { return object.m_internal; }

    /// Drops the sessions that have outlived their time-out; 0.
    int purge() PLINTH_REQUIRES(mutex);
    int store(SSL_SESSION* session, const char* key) PLINTH_REQUIRES(mutex);
    /// The references to a session that the cache has taken under any key.
    int known_references(const SSL_SESSION* session) const PLINTH_REQUIRES(mutex);
};

}  // namespace Veltro::Ravelo
