// Serial numbers and subjects.
#include <Ravelo/SslX509.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>

#include "MadeCertificate.h"
#include "Plinth/FailingAllocator.h"
#include "Support/Certificates.h"
#include "Support/LogCapture.h"
#include "Support/ScarceOpenSsl.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::certificate;
using TestSupport::CLogCapture;

/// 1, 2, 3 ... as a serial number of some bytes.
std::string serialOf(int length) {
    std::string serial;
    for (int i = 1; i <= length; ++i) serial += static_cast<char>(i);
    return serial;
}

const TAttributes FULL_SUBJECT = {{NID_countryName, "GB"},
                                  {NID_stateOrProvinceName, "England"},
                                  {NID_localityName, "London"},
                                  {NID_organizationName, "Ravelo Tests"},
                                  {NID_organizationalUnitName, "Sockets"},
                                  {NID_commonName, "server"}};

/// The full subject without some attributes.
TAttributes without(std::initializer_list<int> missing) {
    TAttributes rest = FULL_SUBJECT;
    std::erase_if(rest, [missing](const auto& attribute) {
        return std::find(missing.begin(), missing.end(), attribute.first) != missing.end();
    });
    return rest;
}

/// A record full of bytes that nobody has written.
CertSubjectMsg dirtyRecord() {
    CertSubjectMsg msg;
    std::memset(static_cast<void*>(&msg), 0x5a, sizeof(msg));
    return msg;
}

/// Whether every byte of a field from its text's end on is 0.
template <std::size_t Size>
bool isPadded(const char (&field)[Size]) {
    const char* end = std::find(field, field + Size, '\0');
    return std::all_of(end, field + Size, [](char c) { return c == '\0'; });
}

/// What GetCertSubjectMsg makes of a subject.
struct SSubject {
    explicit SSubject(const TAttributes& attributes) {
        setOwn(object, makeCertificate(attributes));
        result = object.GetCertSubjectMsg(&msg);
    }
    CSslX509 object;
    CertSubjectMsg msg = dirtyRecord();
    int result = 0;
};

TEST(SslX509, SerialNumbersOfOneToTwentyBytesComeWhole) {
    for (int length = 1; length <= 20; ++length) {
        CSslX509 object;
        setOwn(object, makeCertificate({}, serialOf(length)));
        std::array<unsigned char, 32> bytes{};
        int size = static_cast<int>(bytes.size());
        EXPECT_EQ(0, object.GetCertSN(bytes.data(), size));
        EXPECT_EQ(length, size);
        EXPECT_EQ(serialOf(length), std::string(bytes.begin(), bytes.begin() + size));
        EXPECT_EQ(0, bytes[static_cast<std::size_t>(length)]);
    }
}

TEST(SslX509, ASerialNumberMayFillTheBuffer) {
    CSslX509 object;
    setOwn(object, makeCertificate({}, serialOf(16)));
    std::array<unsigned char, 16> bytes{};
    int size = 16;
    EXPECT_EQ(0, object.GetCertSN(bytes.data(), size));
    EXPECT_EQ(16, bytes[15]);
}

TEST(SslX509, ATooSmallBufferIsLeftAndTheSizeTold) {
    CSslX509 object;
    setOwn(object, makeCertificate({}, serialOf(16)));
    unsigned char byte = 0x5a;
    int size = 1;
    EXPECT_EQ(-2, object.GetCertSN(&byte, size));
    EXPECT_EQ(16, size);
    EXPECT_EQ(0x5a, byte);
}

TEST(SslX509, NoBufferAndNoLengthAskForTheSize) {
    CSslX509 object;
    setOwn(object, makeCertificate({}, serialOf(9)));
    int size = 0;
    EXPECT_EQ(-2, object.GetCertSN(nullptr, size));
    EXPECT_EQ(9, size);
    EXPECT_EQ(-1, object.GetCertSN(nullptr, size));
    size = -1;
    EXPECT_EQ(-2, object.GetCertSN(nullptr, size));
}

TEST(SslX509, ASerialNumberFromAFileKeepsItsBytes) {
    CSslX509 object;
    ASSERT_EQ(0, object.SetCert(certificate("server.pem").c_str(), certificate("server_key.pem").c_str()));
    std::array<unsigned char, 20> bytes{};
    int size = 20;
    ASSERT_EQ(0, object.GetCertSN(bytes.data(), size));
    ASSERT_EQ(16, size);
    EXPECT_EQ(std::string("\x12\x34\x56\x78\x90\xAB\xCD\xEF\x12\x34\x56\x78\x90\xAB\xCD\xEF"),
              std::string(bytes.begin(), bytes.begin() + 16));
}

TEST(SslX509, WithoutACertificateThereIsNoSerialNumber) {
    CSslX509 object;
    std::array<unsigned char, 20> bytes{};
    int size = 20;
    EXPECT_EQ(-1, object.GetCertSN(bytes.data(), size));
    EXPECT_EQ(20, size);
}

TEST(SslX509, ASubjectComesWithTheSumOfItsLengths) {
    const SSubject subject(FULL_SUBJECT);
    EXPECT_EQ(2 + 7 + 6 + 12 + 7 + 6, subject.result);
    EXPECT_STREQ("GB", subject.msg.country);
    EXPECT_STREQ("England", subject.msg.state);
    EXPECT_STREQ("London", subject.msg.locality);
    EXPECT_STREQ("Ravelo Tests", subject.msg.organization);
    EXPECT_STREQ("Sockets", subject.msg.unit);
    EXPECT_STREQ("server", subject.msg.common_name);
}

TEST(SslX509, FieldsAreFilledUpWithNuls) {
    const SSubject subject(FULL_SUBJECT);
    EXPECT_TRUE(isPadded(subject.msg.country));
    EXPECT_TRUE(isPadded(subject.msg.state));
    EXPECT_TRUE(isPadded(subject.msg.locality));
    EXPECT_TRUE(isPadded(subject.msg.organization));
    EXPECT_TRUE(isPadded(subject.msg.unit));
    EXPECT_TRUE(isPadded(subject.msg.common_name));
    EXPECT_TRUE(isPadded(subject.msg.reserved));
}

TEST(SslX509, AMissingAttributeGetsTheTextBeforeIt) {
    const SSubject subject(without({NID_organizationalUnitName}));
    EXPECT_EQ(2 + 7 + 6 + 12 - 1 + 6, subject.result);
    EXPECT_STREQ("Ravelo Tests", subject.msg.unit);
    EXPECT_STREQ("server", subject.msg.common_name);
}

TEST(SslX509, SeveralMissingAttributesGetTheLastText) {
    const SSubject subject(without({NID_localityName, NID_organizationName, NID_commonName}));
    EXPECT_EQ(2 + 7 - 1 - 1 + 7 - 1, subject.result);
    EXPECT_STREQ("England", subject.msg.locality);
    EXPECT_STREQ("England", subject.msg.organization);
    EXPECT_STREQ("Sockets", subject.msg.common_name);
}

TEST(SslX509, AMissingAttributeAfterALongOneGetsWhatFits) {
    TAttributes attributes = without({NID_organizationalUnitName, NID_commonName});
    const SSubject subject(attributes);
    EXPECT_STREQ("Ravelo Tests", subject.msg.unit);
    EXPECT_STREQ("Ravelo Tests", subject.msg.common_name);
}

TEST(SslX509, WithoutACountryTheSumIsNegativeAtOnce) {
    const SSubject subject(without({NID_countryName}));
    EXPECT_EQ(-1, subject.result);
    EXPECT_STREQ("", subject.msg.country);
    EXPECT_STREQ("", subject.msg.state);
    EXPECT_STREQ("", subject.msg.common_name);
}

TEST(SslX509, TheSumMayTurnNegativeOnTheWay) {
    const SSubject subject({{NID_countryName, "GB"}, {NID_commonName, "server"}});
    // 2 for the country, then 1, 0 and -1.
    EXPECT_EQ(-1, subject.result);
    EXPECT_STREQ("GB", subject.msg.organization);
    EXPECT_STREQ("", subject.msg.unit);
    EXPECT_STREQ("", subject.msg.common_name);
}

TEST(SslX509, ASumThatEndsAtZeroIsNoFailure) {
    const SSubject subject({{NID_countryName, "GB"}, {NID_localityName, "L"}, {NID_commonName, "s"}});
    // 2, 1, 2, 1, 0, 1.
    EXPECT_EQ(1, subject.result);
    const SSubject zero({{NID_countryName, "GB"}, {NID_localityName, "Lo"}});
    // 2, 1, 3, 2, 1, 0.
    EXPECT_EQ(0, zero.result);
    EXPECT_STREQ("Lo", zero.msg.common_name);
}

TEST(SslX509, ALongCommonNameIsCutAtItsField) {
    // Its own checks limit a common name to 64 bytes; others that make certificates need not keep to that.
    TCertificate cert = makeCertificate(without({NID_commonName}));
    const std::string text(200, 'n');
    ASN1_STRING* value = ASN1_STRING_type_new(V_ASN1_UTF8STRING);
    ASSERT_EQ(1, ASN1_STRING_set(value, text.data(), static_cast<int>(text.size())));
    X509_NAME_ENTRY* entry = X509_NAME_ENTRY_create_by_NID(nullptr, NID_commonName, V_ASN1_UTF8STRING,
                                                           ASN1_STRING_get0_data(value), 200);
    ASSERT_EQ(1, X509_NAME_add_entry(X509_get_subject_name(cert.get()), entry, -1, 0));
    X509_NAME_ENTRY_free(entry);
    ASN1_STRING_free(value);
    CSslX509 object;
    setOwn(object, std::move(cert));
    CertSubjectMsg msg = dirtyRecord();
    EXPECT_EQ(2 + 7 + 6 + 12 + 7 + 200, object.GetCertSubjectMsg(&msg));
    EXPECT_EQ(std::string(128, 'n'), std::string(msg.common_name, sizeof(msg.common_name)));
    EXPECT_TRUE(isPadded(msg.reserved));
}

TEST(SslX509, AFullFieldHasNoTerminator) {
    TAttributes attributes = without({NID_organizationName, NID_organizationalUnitName});
    const std::string full(64, 'o');
    attributes.emplace_back(NID_organizationName, full);
    const SSubject subject(attributes);
    EXPECT_EQ(full, std::string(subject.msg.organization, sizeof(subject.msg.organization)));
    EXPECT_EQ(full, std::string(subject.msg.unit, sizeof(subject.msg.unit)));
    EXPECT_STREQ("server", subject.msg.common_name);
}

TEST(SslX509, TheFirstOfSeveralAttributesCounts) {
    TAttributes attributes = FULL_SUBJECT;
    attributes.emplace_back(NID_commonName, "second");
    EXPECT_STREQ("server", SSubject(attributes).msg.common_name);
}

TEST(SslX509, WithoutACertificateOrRecordThereIsNoSubject) {
    CSslX509 object;
    CertSubjectMsg msg = dirtyRecord();
    EXPECT_EQ(-1, object.GetCertSubjectMsg(&msg));
    EXPECT_EQ(0x5a, msg.country[0]);
    setOwn(object, makeCertificate(FULL_SUBJECT));
    EXPECT_EQ(-1, object.GetCertSubjectMsg(nullptr));
}

TEST(SslX509, EveryCallForASubjectLogsItsBareLine) {
    const CLogCapture log;
    CSslX509 object;
    object.GetCertSubjectMsg(nullptr);
    setOwn(object, makeCertificate(FULL_SUBJECT));
    CertSubjectMsg msg;
    object.GetCertSubjectMsg(&msg);
    ASSERT_EQ(2U, log.lines().size());
    for (const auto& line : log.lines()) {
        EXPECT_EQ(Plinth::LOG_LEVEL_TRACE, line.level);
        EXPECT_EQ("4, 64\n\n", line.text);
        EXPECT_EQ(".\\Src\\Socket\\SslX509.cpp", line.file);
    }
}

TEST(SslX509, AnotherOwnCertificateTakesThePlaceOfTheFirst) {
    CSslX509 object;
    setOwn(object, makeCertificate({{NID_countryName, "GB"}}, serialOf(3)));
    setOwn(object, makeCertificate({{NID_countryName, "GB"}}, serialOf(5)));
    std::array<unsigned char, 20> bytes{};
    int size = 20;
    ASSERT_EQ(0, object.GetCertSN(bytes.data(), size));
    EXPECT_EQ(5, size);
}

/// Whether an object that could not be made whole fails everything.
void expectUseless(CSslX509& object) {
    int size = 0;
    CertSubjectMsg msg;
    EXPECT_EQ(-1, object.SetCert(certificate("server.pem").c_str(), certificate("server_key.pem").c_str()));
    EXPECT_EQ(-1, object.SetCA(certificate("root_ca.pem").c_str()));
    EXPECT_EQ(-1, object.SetTrustCA(certificate("root_ca.pem").c_str()));
    EXPECT_EQ(-1, object.CheckCertificateChain(0));
    EXPECT_EQ(-1, object.CheckCertIsRevoked(certificate("crl.pem").c_str()));
    EXPECT_EQ(-1, object.GetCertSN(nullptr, size));
    EXPECT_EQ(-1, object.GetCertSubjectMsg(&msg));
    EXPECT_EQ(-1, SSslX509Record::setCert(object, makeCertificate({})));
}

TEST(SslX509, AnObjectMadeWithoutMemoryFailsEverything) {
    alignas(CSslX509) unsigned char place[sizeof(CSslX509)];
    CSslX509* object = nullptr;
    {
        const TestSupport::CFailingAllocator failing;
        object = new (place) CSslX509;
    }
    expectUseless(*object);
    object->~CSslX509();
}

TEST(SslX509, AnObjectWithoutRoomForItsListsFailsEverything) {
    CSslX509 warm_up;  // OpenSSL's own set-up has memory
    for (int allocations = 0; allocations < 2; ++allocations) {
        alignas(CSslX509) unsigned char place[sizeof(CSslX509)];
        CSslX509* object = nullptr;
        {
            const TestSupport::CScarceOpenSsl scarce(allocations);
            object = new (place) CSslX509;
        }
        expectUseless(*object);
        object->~CSslX509();
    }
}

}  // namespace
}  // namespace Veltro::Ravelo
