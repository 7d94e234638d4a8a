// What is read from files that are whole or missing.
#include <Ravelo/SslX509.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ui.h>

#include <string>

#include "Socket/SslX509Record.h"
#include "Support/Certificates.h"
#include "Support/LogCapture.h"
#include "Support/ScarceOpenSsl.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::certificate;
using TestSupport::CLogCapture;
using TestSupport::contentOf;
using TestSupport::CTemporaryFile;

int setCert(CSslX509& object, const std::string& cert, const std::string& key) {
    return object.SetCert(certificate(cert).c_str(), certificate(key).c_str());
}

bool hasCert(CSslX509& object) {
    return SSslX509Record::of(object)->m_cert != nullptr;
}
bool hasKey(CSslX509& object) {
    return SSslX509Record::of(object)->m_key != nullptr;
}
int trusted(CSslX509& object) {
    return sk_X509_num(SSslX509Record::of(object)->m_trust.get());
}
int chained(CSslX509& object) {
    return sk_X509_num(SSslX509Record::of(object)->m_chain.get());
}

/// Answers OpenSSL's prompts in the place of the terminal while it lives.
class CPromptAnswer {
public:
    explicit CPromptAnswer(const char* answer) : m_method(UI_create_method("answer")) {
        s_answer = answer;
        s_asked = 0;
        UI_method_set_reader(m_method, [](UI* ui, UI_STRING* string) {
            if (UI_get_string_type(string) != UIT_PROMPT) return 1;
            ++s_asked;
            return s_answer != nullptr && UI_set_result(ui, string, s_answer) == 0 ? 1 : 0;
        });
        UI_set_default_method(m_method);
    }
    ~CPromptAnswer() {
        UI_set_default_method(UI_OpenSSL());
        UI_destroy_method(m_method);
    }
    static int asked() { return s_asked; }

private:
    static inline const char* s_answer = nullptr;
    static inline int s_asked = 0;
    UI_METHOD* m_method;
};

TEST(SslX509Load, ANewObjectIsEmpty) {
    CSslX509 object;
    EXPECT_FALSE(hasCert(object));
    EXPECT_FALSE(hasKey(object));
    EXPECT_EQ(0, chained(object));
    EXPECT_EQ(0, trusted(object));
}

TEST(SslX509Load, AMatchingPairIsTaken) {
    const CLogCapture log;
    CSslX509 object;
    EXPECT_EQ(0, setCert(object, "server.pem", "server_key.pem"));
    EXPECT_TRUE(hasCert(object));
    EXPECT_TRUE(hasKey(object));
    EXPECT_TRUE(log.lines().empty());
}

TEST(SslX509Load, AnRsaPairIsTaken) {
    CSslX509 object;
    EXPECT_EQ(0, setCert(object, "server_rsa.pem", "server_rsa_key.pem"));
    EXPECT_EQ(EVP_PKEY_RSA, EVP_PKEY_get_base_id(SSslX509Record::of(object)->m_key.get()));
}

TEST(SslX509Load, TheFirstCertificateOfAFileIsTheOwnOne) {
    CSslX509 object;
    EXPECT_EQ(0, setCert(object, "server_chain.pem", "server_key.pem"));
    EXPECT_EQ(0, chained(object));
}

TEST(SslX509Load, TextAroundTheBlocksIsSkipped) {
    const CTemporaryFile both("# a comment\n" + contentOf(certificate("server_key.pem")) + "more text\r\n" +
                              contentOf(certificate("server.pem")) + "the end");
    CSslX509 object;
    EXPECT_EQ(0, object.SetCert(both.path().c_str(), both.path().c_str()));
}

TEST(SslX509Load, WindowsLineEndsAreTaken) {
    std::string text;
    for (const char c : contentOf(certificate("server.pem"))) text += c == '\n' ? "\r\n" : std::string(1, c);
    const CTemporaryFile file(text);
    CSslX509 object;
    EXPECT_EQ(0, object.SetCert(file.path().c_str(), certificate("server_key.pem").c_str()));
}

TEST(SslX509Load, APathMayHoldAnyCharacter) {
    const CTemporaryFile file(contentOf(certificate("server.pem")), "z\xc3\xbcrich \xe6\x9d\xb1 ");
    CSslX509 object;
    EXPECT_EQ(0, object.SetCert(file.path().c_str(), certificate("server_key.pem").c_str()));
}

TEST(SslX509Load, AMissingCertificateFileFailsWithItsLine) {
    const CLogCapture log;
    CSslX509 object;
    EXPECT_EQ(-1, object.SetCert("no/such.pem", certificate("server_key.pem").c_str()));
    ASSERT_EQ(1U, log.lines().size());
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR,
                           " get_x509_from_file Read the certificate file[no/such.pem]failed! errno:"));
    EXPECT_EQ("CSslX509::get_x509_from_file", log.lines()[0].function);
}

TEST(SslX509Load, AMissingFileLogsTheSystemsReason) {
    const CLogCapture log;
    CSslX509 object;
    object.SetCA("no_such.pem");
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR, "failed! errno:2, "));
}

TEST(SslX509Load, AMissingKeyFileFailsWithItsLine) {
    const CLogCapture log;
    CSslX509 object;
    EXPECT_EQ(-2, object.SetCert(certificate("server.pem").c_str(), "no_such.pem"));
    ASSERT_EQ(1U, log.lines().size());
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR,
                           " get_privkey_from_file Read the privkey file failed! errno:2, "));
    EXPECT_FALSE(hasCert(object));
    EXPECT_FALSE(hasKey(object));
}

TEST(SslX509Load, AFileWithoutACertificateFailsWithItsLine) {
    const CLogCapture log;
    CSslX509 object;
    EXPECT_EQ(-1, setCert(object, "server_key.pem", "server_key.pem"));
    ASSERT_EQ(1U, log.lines().size());
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR,
                           " get_x509_from_file Get x509 from certificate file failed! errno:"));
}

TEST(SslX509Load, AFileWithoutAKeyFailsWithItsLine) {
    const CLogCapture log;
    CSslX509 object;
    EXPECT_EQ(-2, setCert(object, "server.pem", "server.pem"));
    ASSERT_EQ(1U, log.lines().size());
    EXPECT_EQ(
        1, log.count(Plinth::LOG_LEVEL_ERROR, " get_privkey_from_file Get key from key file failed! errno:"));
}

TEST(SslX509Load, AnotherCertificatesKeyFailsWithItsLine) {
    const CLogCapture log;
    CSslX509 object;
    EXPECT_EQ(-3, setCert(object, "server.pem", "client_key.pem"));
    ASSERT_EQ(1U, log.lines().size());
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR, " SetCert CERT and KEY does not match!\n"));
    EXPECT_FALSE(hasCert(object));
    EXPECT_FALSE(hasKey(object));
}

TEST(SslX509Load, AKeyOfAnotherKindDoesNotMatch) {
    const CLogCapture log;
    CSslX509 object;
    EXPECT_EQ(-3, setCert(object, "server.pem", "server_rsa_key.pem"));
}

TEST(SslX509Load, NullPathsFailLikeMissingFiles) {
    const CLogCapture log;
    CSslX509 object;
    EXPECT_EQ(-1, object.SetCert(nullptr, nullptr));
    EXPECT_EQ(-2, object.SetCert(certificate("server.pem").c_str(), nullptr));
    EXPECT_EQ(-1, object.SetCA(nullptr));
    EXPECT_EQ(-1, object.SetTrustCA(nullptr));
    EXPECT_EQ(3, log.count(Plinth::LOG_LEVEL_ERROR, "Read the certificate file[(null)]failed!"));
}

TEST(SslX509Load, AnEmptyFileAndAFolderHoldNothing) {
    const CLogCapture log;
    const CTemporaryFile empty;
    CSslX509 object;
    EXPECT_EQ(-1, object.SetCA(empty.path().c_str()));
    EXPECT_EQ(-1, object.SetCA(RAVELO_CERTIFICATES));
    EXPECT_EQ(0, chained(object));
}

TEST(SslX509Load, ASecondPairReplacesTheFirst) {
    CSslX509 object;
    ASSERT_EQ(0, setCert(object, "server.pem", "server_key.pem"));
    ASSERT_EQ(0, setCert(object, "client.pem", "client_key.pem"));
    const SSslX509Record& record = *SSslX509Record::of(object);
    EXPECT_EQ(1, X509_check_private_key(record.m_cert.get(), record.m_key.get()));
    int size = 0;
    EXPECT_EQ(-2, object.GetCertSN(nullptr, size));
    EXPECT_EQ(1, size);
}

TEST(SslX509Load, AFailedLoadLeavesNeitherOfTheOldPair) {
    const CLogCapture log;
    CSslX509 object;
    ASSERT_EQ(0, setCert(object, "server.pem", "server_key.pem"));
    EXPECT_EQ(-1, object.SetCert("no_such.pem", certificate("server_key.pem").c_str()));
    EXPECT_FALSE(hasCert(object));
    EXPECT_FALSE(hasKey(object));
}

TEST(SslX509Load, AnEncryptedKeyIsAskedForAtThePrompt) {
    const CPromptAnswer answer("secret");
    for (const char* key : {"server_key_encrypted.pem", "server_key_legacy.pem"}) {
        const int before = CPromptAnswer::asked();
        CSslX509 object;
        EXPECT_EQ(0, setCert(object, "server.pem", key));
        EXPECT_EQ(before + 1, CPromptAnswer::asked());
    }
}

TEST(SslX509Load, AKeyWithoutAPasswordIsNotAskedFor) {
    const CPromptAnswer answer("secret");
    CSslX509 object;
    EXPECT_EQ(0, setCert(object, "server.pem", "server_key.pem"));
    EXPECT_EQ(0, CPromptAnswer::asked());
}

TEST(SslX509Load, AWrongPasswordFailsAsAKeyThatCannotBeRead) {
    const CPromptAnswer answer("wrong");
    const CLogCapture log;
    for (const char* key : {"server_key_encrypted.pem", "server_key_legacy.pem"}) {
        CSslX509 object;
        EXPECT_EQ(-2, setCert(object, "server.pem", key));
    }
    EXPECT_EQ(2, log.count(Plinth::LOG_LEVEL_ERROR, "Get key from key file failed!"));
}

TEST(SslX509Load, APromptWithoutAnAnswerFails) {
    const CPromptAnswer answer(nullptr);
    const CLogCapture log;
    CSslX509 object;
    EXPECT_EQ(-2, setCert(object, "server.pem", "server_key_encrypted.pem"));
    EXPECT_GE(CPromptAnswer::asked(), 1);
}

TEST(SslX509Load, ChainFilesAreAppendedOneByOne) {
    CSslX509 object;
    EXPECT_EQ(0, object.SetCA(certificate("intermediate_1.pem").c_str()));
    EXPECT_EQ(0, object.SetCA(certificate("root_ca.pem").c_str()));
    EXPECT_EQ(2, chained(object));
}

TEST(SslX509Load, OfAFileWithSeveralCertificatesTheChainTakesTheFirst) {
    CSslX509 object;
    EXPECT_EQ(0, object.SetCA(certificate("trust.pem").c_str()));
    EXPECT_EQ(1, chained(object));
}

TEST(SslX509Load, AMissingChainFileFailsWithItsLine) {
    const CLogCapture log;
    CSslX509 object;
    EXPECT_EQ(-1, object.SetCA("no_such.pem"));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR, "Read the certificate file[no_such.pem]failed!"));
    EXPECT_EQ(0, chained(object));
}

TEST(SslX509Load, TrustTakesEveryCertificateOfAFileAndSaysHowMany) {
    const CLogCapture log;
    const std::string file = certificate("trust.pem");
    CSslX509 object;
    EXPECT_EQ(0, object.SetTrustCA(file.c_str()));
    EXPECT_EQ(2, trusted(object));
    ASSERT_EQ(1U, log.lines().size());
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_TRACE,
                           " SetTrustCA Get [2] x509 from certificate file [" + file + "]! errno:"));
}

TEST(SslX509Load, TrustGrowsWithEachFile) {
    CSslX509 object;
    EXPECT_EQ(0, object.SetTrustCA(certificate("trust.pem").c_str()));
    EXPECT_EQ(0, object.SetTrustCA(certificate("root_ca.pem").c_str()));
    EXPECT_EQ(3, trusted(object));
}

TEST(SslX509Load, AFileWithoutCertificatesAddsNoTrustAndIsNoFailure) {
    const CLogCapture log;
    CSslX509 object;
    EXPECT_EQ(0, object.SetTrustCA(certificate("server_key.pem").c_str()));
    EXPECT_EQ(0, trusted(object));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_TRACE, "Get [0] x509 from certificate file"));
}

TEST(SslX509Load, AMissingTrustFileFailsWithItsLine) {
    const CLogCapture log;
    CSslX509 object;
    EXPECT_EQ(-1, object.SetTrustCA("no_such.pem"));
    ASSERT_EQ(1U, log.lines().size());
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR,
                           " SetTrustCA Read the certificate file[no_such.pem]failed! errno:2, "));
}

TEST(SslX509Load, WhatItReadsLeavesNothingInTheErrorQueue) {
    const CLogCapture log;
    CSslX509 object;
    object.SetCert("no_such.pem", nullptr);
    setCert(object, "server_key.pem", "server.pem");
    setCert(object, "server.pem", "client_key.pem");
    setCert(object, "server.pem", "server_key.pem");
    object.SetTrustCA(certificate("trust.pem").c_str());
    object.CheckCertIsRevoked(certificate("crl.pem").c_str());
    object.CheckCertIsRevoked(certificate("server.pem").c_str());
    EXPECT_EQ(0UL, ERR_peek_error());
}

TEST(SslX509Load, AnErrorThatWaitedInTheQueueStays) {
    const CLogCapture log;
    ERR_clear_error();
    ERR_raise(ERR_LIB_USER, 42);
    CSslX509 object;
    object.SetCA("no_such.pem");
    EXPECT_EQ(42, ERR_GET_REASON(ERR_peek_last_error()));
    ERR_clear_error();
}

TEST(SslX509Load, WithoutMemoryForItsFileEachOperationSaysSo) {
    const CLogCapture log;
    CSslX509 object;
    ASSERT_EQ(0, setCert(object, "server.pem", "server_key.pem"));
    const std::string file = certificate("root_ca.pem");
    {
        const TestSupport::CScarceOpenSsl scarce(0);
        EXPECT_EQ(-1, object.SetCA(file.c_str()));
        EXPECT_EQ(-1, object.SetTrustCA(file.c_str()));
    }
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR, " get_x509_from_file Create BIO failed ! errno:"));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR, " SetTrustCA Create BIO failed! errno:"));
}

/// Runs an operation with ever more of OpenSSL's memory until it succeeds. Returns how many runs lacked some.
template <typename Operation>
int runWithScarceMemory(Operation operation) {
    for (int allocations = 0;; ++allocations) {
        bool lacked = false;
        int result = 0;
        {
            const TestSupport::CScarceOpenSsl scarce(allocations);
            result = operation();
            lacked = scarce.hasFailed();
        }
        EXPECT_EQ(0UL, ERR_peek_error());
        if (result == 0) return allocations;
        EXPECT_TRUE(lacked);
        if (!lacked) return allocations;
    }
}

TEST(SslX509Load, APairLoadsWholeOrNotAtAllHoweverMuchMemoryThereIs) {
    const CLogCapture log;
    const std::string cert = certificate("server.pem");
    const std::string key = certificate("server_key.pem");
    CSslX509 object;
    ASSERT_EQ(0, object.SetCert(cert.c_str(), key.c_str()));
    const int runs = runWithScarceMemory([&object, &cert, &key] {
        const int result = object.SetCert(cert.c_str(), key.c_str());
        EXPECT_EQ(result == 0, hasCert(object));
        EXPECT_EQ(result == 0, hasKey(object));
        return result;
    });
    EXPECT_GT(runs, 10);
    EXPECT_GE(log.count(Plinth::LOG_LEVEL_ERROR, " get_privkey_from_file Create BIO failed! errno:"), 1);
}

TEST(SslX509Load, ChainAndListsOfRevokedStandScarceMemory) {
    const CLogCapture log;
    CSslX509 object;
    ASSERT_EQ(0, setCert(object, "server.pem", "server_key.pem"));
    const std::string chain = certificate("root_ca.pem");
    const std::string crl = certificate("crl.pem");
    EXPECT_GT(runWithScarceMemory([&object, &chain] { return object.SetCA(chain.c_str()); }), 5);
    EXPECT_EQ(1, chained(object));
    EXPECT_GT(runWithScarceMemory([&object, &crl] { return object.CheckCertIsRevoked(crl.c_str()); }), 5);
}

}  // namespace
}  // namespace Veltro::Ravelo
