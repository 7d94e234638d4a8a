#include "ScarceOpenSsl.h"

#include <gtest/gtest.h>
#include <openssl/crypto.h>

#include <cstdlib>
#include <limits>

namespace {

constexpr int PLENTY = std::numeric_limits<int>::max();

thread_local int t_left = PLENTY;
thread_local bool t_failed = false;

bool mayAllocate() {
    if (t_left == PLENTY) return true;
    if (t_left > 0) {
        --t_left;
        return true;
    }
    t_failed = true;
    return false;
}

void* allocate(std::size_t size, const char*, int) {
    return mayAllocate() ? std::malloc(size) : nullptr;
}

void* reallocate(void* block, std::size_t size, const char*, int) {
    return mayAllocate() ? std::realloc(block, size) : nullptr;
}

void release(void* block, const char*, int) {
    std::free(block);
}

struct SInstallation {
    bool succeeded = CRYPTO_set_mem_functions(allocate, reallocate, release) == 1;
};

// OpenSSL takes other functions only before its first allocation, which statics of the library may make.
[[gnu::init_priority(101)]] const SInstallation s_installation;

}  // namespace

namespace Veltro::TestSupport {

CScarceOpenSsl::CScarceOpenSsl(int allocations_left) : m_allocations(allocations_left) {
    EXPECT_TRUE(s_installation.succeeded);
    t_failed = false;
    t_left = allocations_left;
}

CScarceOpenSsl::~CScarceOpenSsl() {
    t_left = PLENTY;
}

bool CScarceOpenSsl::hasFailed() const {
    return t_failed;
}

int CScarceOpenSsl::made() const {
    return m_allocations - t_left;
}

}  // namespace Veltro::TestSupport
