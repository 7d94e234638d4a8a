// Kinds of OpenSSL's I/O objects over sockets, which carry a state of their own.
#pragma once

#include <atomic>
#include <memory>
#include <utility>

#include "Socket/OpenSslTypes.h"

namespace Veltro::Ravelo {

/// What one kind does. One object of static life for each kind.
struct SBioKind {
    const char* name;
    int (*write)(BIO* bio, const char* data, int length);
    int (*read)(BIO* bio, char* buffer, int length);
    long (*control)(BIO* bio, int command, long number, void* pointer);
    int (*destroy)(BIO* bio);
    std::atomic<BIO_METHOD*> method{nullptr};
};

/// A kind's method for OpenSSL: made at the first use for which there is memory, by any thread; lives as long
/// as the process. Null without memory.
const BIO_METHOD* bioMethod(SBioKind* kind);

/// The state that createBio() gave a BIO.
template <typename TState>
TState& bioState(const BIO* bio) {
    // The getter asks for what it does not change.
    return *static_cast<TState*>(BIO_get_data(const_cast<BIO*>(bio)));
}

/// A kind's `destroy` for BIOs of createBio().
template <typename TState>
int destroyBioState(BIO* bio) {
    delete static_cast<TState*>(BIO_get_data(bio));
    BIO_set_data(bio, nullptr);
    return 1;
}

/// A BIO that owns a state. Null without memory, which a null state stands for, too.
template <typename TState>
BIO* createBio(SBioKind* kind, std::unique_ptr<TState> state) {
    const BIO_METHOD* method = bioMethod(kind);
    TBio bio(method != nullptr && state != nullptr ? BIO_new(method) : nullptr);
    if (bio == nullptr) return nullptr;
    BIO_set_data(bio.get(), state.release());
    BIO_set_init(bio.get(), 1);
    return bio.release();
}

}  // namespace Veltro::Ravelo
