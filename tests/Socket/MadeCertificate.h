// Certificates put together in memory, unsigned: for what only reads their fields.
#pragma once

#include <gtest/gtest.h>
#include <openssl/x509.h>

#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "Socket/SslX509Record.h"

namespace Veltro::Ravelo {

/// Name attributes: NID and text.
using TAttributes = std::vector<std::pair<int, std::string>>;

inline TCertificate makeCertificate(const TAttributes& subject, const std::string& serial = "\x01") {
    TCertificate cert(X509_new());
    X509_NAME* name = X509_get_subject_name(cert.get());
    for (const auto& [nid, text] : subject) {
        const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
        EXPECT_EQ(1, X509_NAME_add_entry_by_NID(name, nid, MBSTRING_ASC, bytes, static_cast<int>(text.size()),
                                                -1, 0));
    }
    EXPECT_EQ(1, ASN1_STRING_set(X509_get_serialNumber(cert.get()), serial.data(),
                                 static_cast<int>(serial.size())));
    return cert;
}

/// Gives an object a made certificate as its own.
inline void setOwn(CSslX509& object, TCertificate cert) {
    ASSERT_EQ(0, SSslX509Record::setCert(object, std::move(cert)));
}

/// An object that a number counts when it is destroyed.
inline CSslX509* makeCounted(int* destroyed) {
    const auto count = [](void*, void* number, CRYPTO_EX_DATA*, int, long, void*) {
        if (number != nullptr) ++*static_cast<int*>(number);
    };
    static const int s_index = X509_get_ex_new_index(0, nullptr, nullptr, nullptr, count);
    TCertificate cert = makeCertificate({});
    EXPECT_EQ(1, X509_set_ex_data(cert.get(), s_index, destroyed));
    auto* object = new CSslX509;
    EXPECT_EQ(0, SSslX509Record::setCert(*object, std::move(cert)));
    return object;
}

}  // namespace Veltro::Ravelo
