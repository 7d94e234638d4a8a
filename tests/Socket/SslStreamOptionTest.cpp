// The options of a TLS stream.
#include <Ravelo/SslStream.h>
#include <Ravelo/SslX509.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "Socket/MadeCertificate.h"
#include "Support/LogCapture.h"
#include "Support/ScarceMemory.h"
#include "Support/TlsPair.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CLogCapture;
using TestSupport::heapText;

constexpr int LEVEL_ERROR = Plinth::LOG_LEVEL_ERROR;

SSslStreamRecord& recordOf(CSslStream& stream) {
    return *SSslStreamRecord::of(stream);
}

int sessionType(CSslStream& stream, std::uint32_t* number) {
    int type = -5;
    int length = 77;
    EXPECT_EQ(0, stream.GetOption(SslOptSession, type, number, length));
    EXPECT_EQ(77, length);
    return type;
}

TEST(SslStreamOption, ANewObjectHasTheDefaults) {
    CSslStream stream;
    const SSslStreamRecord& record = recordOf(stream);
    EXPECT_EQ(5000, record.m_handshake_timeout);
    EXPECT_EQ(0U, record.m_session_type);
    EXPECT_EQ(0U, record.m_cert_type);
    EXPECT_EQ(0U, record.m_cipher_type);
    EXPECT_EQ(nullptr, record.m_pem_path);
    EXPECT_EQ(nullptr, record.m_server_name);
}

TEST(SslStreamOption, TheSessionOptionIsToldAsItWasSet) {
    CSslStream stream;
    EXPECT_EQ(0, stream.SetOption(SslOptSession, SslSessionId | SslSessionTicket, nullptr));
    std::uint32_t number = 99;
    EXPECT_EQ(3, sessionType(stream, &number));
    EXPECT_EQ(99U, number) << "without numbers the value is left alone";
}

TEST(SslStreamOption, ASessionsNumberIsToldAsItWasSet) {
    CSslStream stream;
    std::uint32_t number = 4'000'000'000;
    EXPECT_EQ(0, stream.SetOption(SslOptSession, SslSessionByNumber, &number));
    std::uint32_t told = 0;
    EXPECT_EQ(4, sessionType(stream, &told));
    EXPECT_EQ(number, told);
}

TEST(SslStreamOption, WithoutAValueTheNumberIsZero) {
    CSslStream stream;
    std::uint32_t number = 5;
    stream.SetOption(SslOptSession, SslSessionByNumber, &number);
    EXPECT_EQ(0, stream.SetOption(SslOptSession, SslSessionByNumber, nullptr));
    sessionType(stream, &number);
    EXPECT_EQ(0U, number);
}

TEST(SslStreamOption, ANumberIsKeptWhileItIsNotAskedFor) {
    CSslStream stream;
    std::uint32_t number = 5;
    stream.SetOption(SslOptSession, SslSessionByNumber, &number);
    stream.SetOption(SslOptSession, SslSessionId, nullptr);
    EXPECT_EQ(5U, recordOf(stream).m_session_number);
}

TEST(SslStreamOption, GettingAnyOtherOptionIsLoggedWithTheTypeGiven) {
    CSslStream stream;
    const CLogCapture log;
    int type = 42;
    int length = 0;
    EXPECT_EQ(0, stream.GetOption(SslOptCert, type, nullptr, length));
    EXPECT_EQ(42, type);
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "GetOption : Unknown Option 1 Type 42 !\n"));
}

TEST(SslStreamOption, UnknownOptionsAreLoggedAndSucceed) {
    CSslStream stream;
    const CLogCapture log;
    EXPECT_EQ(0, stream.SetOption(SslOptProtocolBan, SslBanTLSv1, nullptr));
    EXPECT_EQ(0, stream.SetOption(7, 3, nullptr));
    EXPECT_EQ(0, stream.SetOption(-1, 3, nullptr));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "SetOption : Unknown Option 2 Type 4 !\n"));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "SetOption : Unknown Option 7 Type 3 !\n"));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "SetOption : Unknown Option -1 Type 3 !\n"));
}

TEST(SslStreamOption, UnknownOptionsAreUnknownWithALength) {
    CSslStream stream;
    const CLogCapture log;
    EXPECT_EQ(0, stream.SetOption(SslOptProtocolBan, 1, nullptr, 0));
    EXPECT_EQ(0, stream.SetOption(7, 3, nullptr, 0));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "SetOption : Unknown Option 2 Type 1 !\n"));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "SetOption : Unknown Option 7 Type 3 !\n"));
}

TEST(SslStreamOption, ACertificateBecomesTheStreams) {
    // The leak checker tells whether it is deleted.
    CSslStream stream;
    EXPECT_EQ(0, stream.SetOption(SslOptCert, SslCertOwn | SslCertVerifyPeer, new CSslX509));
    EXPECT_EQ(3U, recordOf(stream).m_cert_type);
    EXPECT_NE(nullptr, recordOf(stream).m_x509);
}

TEST(SslStreamOption, ASecondCertificateTakesTheFirstOnesPlace) {
    int destroyed = 0;
    CSslStream stream;
    stream.SetOption(SslOptCert, SslCertOwn, makeCounted(&destroyed));
    auto* second = makeCounted(&destroyed);
    EXPECT_EQ(0, stream.SetOption(SslOptCert, 0, second));
    EXPECT_EQ(1, destroyed);
    EXPECT_EQ(second, recordOf(stream).m_x509.get());
    EXPECT_EQ(0, stream.SetOption(SslOptCert, SslCertOwn, nullptr, 0));
    EXPECT_EQ(2, destroyed);
    EXPECT_EQ(nullptr, recordOf(stream).m_x509);
}

TEST(SslStreamOption, TheCertificateGoesWithTheStream) {
    int destroyed = 0;
    {
        CSslStream stream;
        stream.SetOption(SslOptCert, SslCertOwn, makeCounted(&destroyed));
    }
    EXPECT_EQ(1, destroyed);
}

TEST(SslStreamOption, ACertificateMayBeGivenAnotherUse) {
    CSslStream stream;
    auto* x509 = new CSslX509;
    stream.SetOption(SslOptCert, SslCertOwn, x509);
    EXPECT_EQ(0, stream.SetOption(SslOptCert, SslCertVerifyPeer, x509));
    EXPECT_EQ(x509, recordOf(stream).m_x509.get());
}

TEST(SslStreamOption, ACipherListIsTakenOver) {
    CSslStream stream;
    char* list = heapText("HIGH");
    EXPECT_EQ(0, stream.SetOption(SslOptCipherList, 1, list));
    EXPECT_EQ(list, recordOf(stream).m_cipher_list.get());
    EXPECT_EQ(0, stream.SetOption(SslOptCipherList, 1, list));
    EXPECT_EQ(list, recordOf(stream).m_cipher_list.get());
}

TEST(SslStreamOption, ACipherListOfAnotherTypeIsNotLookedAt) {
    CSslStream stream;
    char text[] = "HIGH";
    EXPECT_EQ(0, stream.SetOption(SslOptCipherList, 2, text));
    EXPECT_EQ(0, stream.SetOption(SslOptCipherList, 0, text, 4));
    EXPECT_EQ(nullptr, recordOf(stream).m_cipher_list);
    EXPECT_EQ(0U, recordOf(stream).m_cipher_type);
}

TEST(SslStreamOption, ACipherListWithALengthIsCopied) {
    CSslStream stream;
    stream.SetOption(SslOptCipherList, 1, heapText("former"));
    char text[] = "HIGH:!aNULL";
    EXPECT_EQ(0, stream.SetOption(SslOptCipherList, 1, text, 4));
    EXPECT_STREQ("HIGH", recordOf(stream).m_cipher_list.get());
}

TEST(SslStreamOption, ACopiedCipherListEndsAtItsNul) {
    CSslStream stream;
    char text[] = "HIGH\0rest";
    EXPECT_EQ(0, stream.SetOption(SslOptCipherList, 1, text, 9));
    EXPECT_EQ(std::string("HIGH\0\0\0\0\0\0", 10), std::string(recordOf(stream).m_cipher_list.get(), 10));
}

TEST(SslStreamOption, TheTimeOutCountsWithTypeZeroOnly) {
    CSslStream stream;
    int timeout_ms = 1234;
    EXPECT_EQ(0, stream.SetOption(SslOptTimeout, 1, &timeout_ms));
    EXPECT_EQ(5000, recordOf(stream).m_handshake_timeout);
    EXPECT_EQ(0, stream.SetOption(SslOptTimeout, 0, &timeout_ms));
    EXPECT_EQ(1234, recordOf(stream).m_handshake_timeout);
    timeout_ms = 77;
    EXPECT_EQ(0, stream.SetOption(SslOptTimeout, 0, &timeout_ms, 4));
    EXPECT_EQ(77, recordOf(stream).m_handshake_timeout);
}

TEST(SslStreamOption, APasswordIsCopiedWithItsLength) {
    CSslStream stream;
    char text[] = "secret";
    EXPECT_EQ(0, stream.SetOption(SslOptKeyPasswd, 0, text));
    EXPECT_EQ(6, recordOf(stream).m_key_passwd_len);
    EXPECT_STREQ("secret", recordOf(stream).m_key_passwd.get());
    char bytes[] = {'a', '\0', 'b'};
    EXPECT_EQ(0, stream.SetOption(SslOptKeyPasswd, 0, bytes, 3));
    EXPECT_EQ(3, recordOf(stream).m_key_passwd_len);
    EXPECT_EQ(std::string(bytes, 3), std::string(recordOf(stream).m_key_passwd.get(), 3));
}

TEST(SslStreamOption, AServerNameIsCopiedWhateverTheLength) {
    CSslStream stream;
    char text[] = "ravelo.test";
    EXPECT_EQ(0, stream.SetOption(SslOptServerName, 0, text));
    EXPECT_STREQ("ravelo.test", recordOf(stream).m_server_name.get());
    char other[] = "other.test";
    EXPECT_EQ(0, stream.SetOption(SslOptServerName, 0, other, 3));
    EXPECT_STREQ("other.test", recordOf(stream).m_server_name.get());
}

TEST(SslStreamOption, ValuesThatAreNeededMustBeThere) {
    CSslStream stream;
    EXPECT_EQ(-1, stream.SetOption(SslOptTimeout, 0, nullptr));
    EXPECT_EQ(-1, stream.SetOption(SslOptKeyPasswd, 0, nullptr));
    EXPECT_EQ(-1, stream.SetOption(SslOptKeyPasswd, 0, nullptr, 3));
    EXPECT_EQ(-1, stream.SetOption(SslOptServerName, 0, nullptr));
    EXPECT_EQ(-1, stream.SetOption(SslOptCipherList, 1, nullptr, 3));
    EXPECT_EQ(-1, stream.SetPemPath(nullptr));
    EXPECT_EQ(5000, recordOf(stream).m_handshake_timeout);
}

TEST(SslStreamOption, NegativeLengthsAreRefused) {
    CSslStream stream;
    char text[] = "text";
    EXPECT_EQ(-1, stream.SetOption(SslOptKeyPasswd, 0, text, -1));
    EXPECT_EQ(-1, stream.SetOption(SslOptCipherList, 1, text, -1));
}

TEST(SslStreamOption, APemPathIsCopiedAndReplaced) {
    CSslStream stream;
    std::string path = "first";
    EXPECT_EQ(0, stream.SetPemPath(path.c_str()));
    EXPECT_EQ(0, stream.SetPemPath("second/one"));
    path = "gone";
    EXPECT_STREQ("second/one", recordOf(stream).m_pem_path.get());
}

TEST(SslStreamOption, WithoutMemoryCopiesFail) {
    CSslStream stream;
    char text[] = "text";
    const TestSupport::CScarceMemory none(0);
    EXPECT_EQ(-1, stream.SetPemPath(text));
    EXPECT_EQ(-1, stream.SetOption(SslOptServerName, 0, text));
    EXPECT_EQ(-1, stream.SetOption(SslOptKeyPasswd, 0, text));
    EXPECT_EQ(-1, stream.SetOption(SslOptKeyPasswd, 0, text, 4));
    EXPECT_EQ(-1, stream.SetOption(SslOptCipherList, 1, text, 4));
    EXPECT_EQ(0, recordOf(stream).m_key_passwd_len);
}

TEST(SslStreamOption, AnObjectWithoutMemoryFailsEverywhere) {
    alignas(CSslStream) char place[sizeof(CSslStream)];
    CSslStream* stream = nullptr;
    {
        const TestSupport::CScarceMemory none(0);
        stream = new (place) CSslStream;
    }
    const CLogCapture log;
    char byte = 0;
    int type = 0;
    EXPECT_EQ(-1, stream->SetPemPath("x"));
    EXPECT_EQ(-1, stream->SetOption(SslOptSession, 1, nullptr));
    EXPECT_EQ(-1, stream->SetOption(SslOptSession, 1, nullptr, 0));
    EXPECT_EQ(0, stream->GetOption(SslOptSession, type, nullptr, type));
    EXPECT_EQ(-1, stream->Connect(static_cast<CSockStream*>(nullptr)));
    EXPECT_EQ(-1, stream->Send("x", 1));
    EXPECT_EQ(-1, stream->Recv(&byte, 1));
    EXPECT_EQ(-1, stream->Peek());
    EXPECT_EQ(-1, stream->Recv_n(&byte, 1, 1000));
    CSslX509 cert;
    EXPECT_EQ(-1, stream->GetPeerCert(&cert));
    stream->~CSslStream();
}

}  // namespace
}  // namespace Veltro::Ravelo
