#include "Socket/BioKind.h"

namespace Veltro::Ravelo {

namespace {

using TMethod = std::unique_ptr<BIO_METHOD, SFreeBy<BIO_meth_free>>;

TMethod makeMethod(const SBioKind& kind) {
    // The type lets SSL_get_fd() find it.
    TMethod method(BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK | BIO_TYPE_DESCRIPTOR, kind.name));
    if (method == nullptr || BIO_meth_set_write(method.get(), kind.write) != 1 ||
        BIO_meth_set_read(method.get(), kind.read) != 1 ||
        BIO_meth_set_ctrl(method.get(), kind.control) != 1 ||
        BIO_meth_set_destroy(method.get(), kind.destroy) != 1) {
        return nullptr;
    }
    return method;
}

}  // namespace

const BIO_METHOD* bioMethod(SBioKind* kind) {
    BIO_METHOD* method = kind->method.load(std::memory_order_acquire);
    if (method != nullptr) return method;
    TMethod made = makeMethod(*kind);
    if (made == nullptr) return nullptr;
    // Another thread may have been first.
    if (!kind->method.compare_exchange_strong(method, made.get(), std::memory_order_acq_rel)) return method;
    return made.release();
}

}  // namespace Veltro::Ravelo
