// Who may attach: whoever can read the file with port and token.
#include <winsock2.h>

#include <windows.h>

#include <Plinth/Console.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>

#include "Plinth/LocalConsole.h"
#include "Support/LogCapture.h"

namespace Veltro::Plinth {
namespace {

using TestSupport::CLocalConsole;
using TestSupport::CTestOperator;

/// Port and token out of the host's file, which goes when the host does: a reader must allow that.
std::istringstream read(const std::string& path) {
    const HANDLE file =
        CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_NE(file, INVALID_HANDLE_VALUE);
    char text[256] = "";
    DWORD length = 0;
    ReadFile(file, text, sizeof text - 1, &length, nullptr);
    CloseHandle(file);
    return std::istringstream(text);
}

/// Says something to the port in the host's file; what comes back until the connection ends.
std::string say(const std::string& path, const std::string& text) {
    unsigned short port = 0;
    read(path) >> port;
    WSADATA data;
    WSAStartup(MAKEWORD(2, 2), &data);
    const SOCKET socket = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    EXPECT_EQ(::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ::send(socket, text.data(), static_cast<int>(text.size()), 0);
    std::string answer;
    char bytes[4096];
    for (int length = 0; (length = ::recv(socket, bytes, sizeof bytes, 0)) > 0;) {
        answer.append(bytes, static_cast<std::size_t>(length));
    }
    ::closesocket(socket);
    WSACleanup();
    return answer;
}

std::string tokenOf(const std::string& path) {
    std::string port;
    std::string token;
    read(path) >> port >> token;
    return token;
}

TEST(ConsoleStranger, TheTokenHas256RandomBits) {
    std::string first;
    {
        const CLocalConsole console;
        first = tokenOf(console.path);
    }
    const CLocalConsole console;
    EXPECT_EQ(first.size(), 64U);
    EXPECT_NE(first, tokenOf(console.path));
}

TEST(ConsoleStranger, WhoSaysTheTokenIsHeard) {
    const CLocalConsole console;
    EXPECT_NE(say(console.path, tokenOf(console.path) + "\nhelp\nexit\n"), "");
}

TEST(ConsoleStranger, WhoSaysAnotherTokenIsSentAwayWithoutAWord) {
    const CLocalConsole console;
    std::string token = tokenOf(console.path);
    token.back() = token.back() == '0' ? '1' : '0';
    for (const std::string& wrong : {token, std::string(), tokenOf(console.path) + "0",
                                     tokenOf(console.path).substr(1), std::string("help")}) {
        EXPECT_EQ(say(console.path, wrong + "\nhelp\n"), "") << wrong;
    }
}

TEST(ConsoleStranger, WhoNeverEndsTheTokenIsSentAway) {
    const CLocalConsole console;
    EXPECT_EQ(say(console.path, std::string(100'000, 'x')), "");
}

TEST(ConsoleStranger, WhoSaysNothingIsSentAwayAfterAWhile) {
    const CLocalConsole console;
    EXPECT_EQ(say(console.path, ""), "");
}

TEST(ConsoleStranger, TheFileGoesWithTheHost) {
    std::string path;
    {
        const CLocalConsole console;
        path = console.path;
        EXPECT_TRUE(std::filesystem::exists(path));
    }
    EXPECT_FALSE(std::filesystem::exists(path));
}

}  // namespace
}  // namespace Veltro::Plinth
