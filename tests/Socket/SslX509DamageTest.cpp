// Files that are cut short or have bits flipped: stated failures or a whole result, never anything between.
#include <Ravelo/SslX509.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ui.h>

#include <string>

#include "Socket/SslX509Record.h"
#include "Support/Certificates.h"
#include "Support/Load.h"
#include "Support/LogCapture.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::certificate;
using TestSupport::CLogCapture;
using TestSupport::contentOf;
using TestSupport::CTemporaryFile;

/// Damage can turn a key into an encrypted one: nobody answers the prompt then.
class SslX509Damage : public ::testing::Test {
protected:
    SslX509Damage() {
        ERR_clear_error();
        UI_set_default_method(UI_null());
    }
    ~SslX509Damage() override {
        UI_set_default_method(UI_OpenSSL());
        EXPECT_EQ(0UL, ERR_peek_error());
    }

    /// Calls `load` with the path of every cut of a file, in steps that a slow build makes larger.
    template <typename Load>
    void forCuts(const std::string& name, Load load) {
        const std::string whole = contentOf(certificate(name));
        const std::size_t step = 1 + TestSupport::slowness() * 2;
        for (std::size_t length = 0; length < whole.size(); length += step) {
            SCOPED_TRACE(name + " cut at " + std::to_string(length));
            m_file.write(whole.substr(0, length));
            load(m_file.path().c_str(), length);
        }
    }
    /// The same with one bit of each byte flipped.
    template <typename Load>
    void forFlips(const std::string& name, Load load) {
        const std::string whole = contentOf(certificate(name));
        const std::size_t step = 1 + TestSupport::slowness() * 2;
        for (std::size_t place = 0; place < whole.size(); place += step) {
            SCOPED_TRACE(name + " flipped at " + std::to_string(place));
            std::string flipped = whole;
            flipped[place] = static_cast<char>(flipped[place] ^ (1 << place % 8));
            m_file.write(flipped);
            load(m_file.path().c_str(), place);
        }
    }
    /// Where the closing line of a PEM file's first block starts.
    static std::size_t endLine(const std::string& name) {
        return contentOf(certificate(name)).find("-----END");
    }

    CTemporaryFile m_file;
};

TEST_F(SslX509Damage, ACutCertificateFails) {
    const CLogCapture log;
    forCuts("server.pem", [](const char* path, std::size_t length) {
        CSslX509 object;
        const int result = object.SetCert(path, certificate("server_key.pem").c_str());
        // Only the end of the last line, which OpenSSL does not ask for, may be missing.
        if (length < endLine("server.pem")) {
            EXPECT_EQ(-1, result);
        }
        EXPECT_EQ(result == 0, SSslX509Record::of(object)->m_cert != nullptr);
    });
}

TEST_F(SslX509Damage, ACutKeyFails) {
    const CLogCapture log;
    forCuts("server_key.pem", [](const char* path, std::size_t length) {
        CSslX509 object;
        const int result = object.SetCert(certificate("server.pem").c_str(), path);
        if (length < endLine("server_key.pem")) {
            EXPECT_EQ(-2, result);
        }
        EXPECT_EQ(result == 0, SSslX509Record::of(object)->m_key != nullptr);
    });
}

TEST_F(SslX509Damage, ACutEncryptedKeyFails) {
    const CLogCapture log;
    forCuts("server_key_encrypted.pem", [](const char* path, std::size_t) {
        CSslX509 object;
        EXPECT_EQ(-2, object.SetCert(certificate("server.pem").c_str(), path));
    });
}

TEST_F(SslX509Damage, ACutTrustFileGivesTheCertificatesBeforeTheCut) {
    const CLogCapture log;
    const std::size_t second = contentOf(certificate("trust.pem")).rfind("-----BEGIN");
    forCuts("trust.pem", [second](const char* path, std::size_t length) {
        CSslX509 object;
        EXPECT_EQ(0, object.SetTrustCA(path));
        const int trusted = sk_X509_num(SSslX509Record::of(object)->m_trust.get());
        if (length < endLine("root_ca.pem")) {
            EXPECT_EQ(0, trusted);
        }
        if (length >= second) {
            EXPECT_GE(trusted, 1);
        }
    });
}

TEST_F(SslX509Damage, ACutListOfRevokedFails) {
    const CLogCapture log;
    CSslX509 object;
    ASSERT_EQ(0, object.SetCert(certificate("revoked.pem").c_str(), certificate("revoked_key.pem").c_str()));
    forCuts("crl.der",
            [&object](const char* path, std::size_t) { EXPECT_EQ(-1, object.CheckCertIsRevoked(path)); });
    forCuts("crl.pem", [&object](const char* path, std::size_t length) {
        const int result = object.CheckCertIsRevoked(path);
        EXPECT_EQ(length < endLine("crl.pem") ? -1 : result, result);
    });
}

TEST_F(SslX509Damage, AFlippedBitInACertificateIsAStatedResult) {
    const CLogCapture log;
    forFlips("server.pem", [](const char* path, std::size_t) {
        CSslX509 object;
        const int result = object.SetCert(path, certificate("server_key.pem").c_str());
        // The certificate may still be one, with other fields.
        EXPECT_TRUE(result == 0 || result == -1 || result == -3) << result;
        EXPECT_EQ(result == 0, SSslX509Record::of(object)->m_cert != nullptr);
        EXPECT_EQ(result == 0, SSslX509Record::of(object)->m_key != nullptr);
    });
}

TEST_F(SslX509Damage, AFlippedBitInAKeyIsAStatedResult) {
    const CLogCapture log;
    for (const char* name : {"server_key.pem", "server_key_encrypted.pem", "server_key_legacy.pem"}) {
        forFlips(name, [](const char* path, std::size_t) {
            CSslX509 object;
            const int result = object.SetCert(certificate("server.pem").c_str(), path);
            EXPECT_TRUE(result == 0 || result == -2 || result == -3) << result;
            EXPECT_EQ(result == 0, SSslX509Record::of(object)->m_key != nullptr);
        });
    }
}

TEST_F(SslX509Damage, AFlippedBitInAListOfRevokedIsAStatedResult) {
    const CLogCapture log;
    CSslX509 object;
    ASSERT_EQ(0, object.SetCert(certificate("revoked.pem").c_str(), certificate("revoked_key.pem").c_str()));
    for (const char* name : {"crl.der", "crl.pem"}) {
        forFlips(name, [&object](const char* path, std::size_t) {
            const int result = object.CheckCertIsRevoked(path);
            EXPECT_TRUE(result >= -1 && result <= 1) << result;
        });
    }
}

TEST_F(SslX509Damage, EachFailureIsOneLine) {
    forCuts("server.pem", [](const char* path, std::size_t) {
        const CLogCapture log;
        CSslX509 object;
        const int result = object.SetCert(path, certificate("server_key.pem").c_str());
        EXPECT_EQ(result == 0 ? 0U : 1U, log.lines().size());
    });
}

}  // namespace
}  // namespace Veltro::Ravelo
