// Who may attach, as far as the system decides it.
#include <Plinth/Console.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "Plinth/LocalConsole.h"
#include "Support/LogCapture.h"

namespace Veltro::Plinth {
namespace {

using TestSupport::CLocalConsole;
using TestSupport::CTestOperator;

constexpr uid_t NOBODY = 65534;

mode_t modeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

/// What another user gets from the socket: 0 when he is sent away, 1 when he is heard, 2 when he cannot
/// connect.
int triesAsAnother(const std::string& path) {
    const pid_t child = ::fork();
    if (child == 0) {
        if (::setuid(NOBODY) != 0) ::_exit(3);
        const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) ::_exit(2);
        [[maybe_unused]] const ssize_t sent = ::send(fd, "help\n", 5, MSG_NOSIGNAL);
        char byte;
        ::_exit(::recv(fd, &byte, 1, 0) > 0 ? 1 : 0);
    }
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(ConsoleStranger, TheSocketIsOfItsUserAlone) {
    const mode_t before = ::umask(0);
    {
        const CLocalConsole console;
        EXPECT_EQ(modeOf(console.path), 0600U);
    }
    ::umask(before);
}

TEST(ConsoleStranger, AnotherUserCannotConnect) {
    if (::geteuid() != 0) GTEST_SKIP() << "only the administrator can try as another user";
    const CLocalConsole console;
    ::chmod(std::filesystem::path(console.path).parent_path().c_str(), 0755);
    EXPECT_EQ(triesAsAnother(console.path), 2);
}

TEST(ConsoleStranger, AnotherUserWhoConnectsAllTheSameIsSentAway) {
    if (::geteuid() != 0) GTEST_SKIP() << "only the administrator can try as another user";
    const CLocalConsole console;
    ::chmod(std::filesystem::path(console.path).parent_path().c_str(), 0755);
    ::chmod(console.path.c_str(), 0666);
    EXPECT_EQ(triesAsAnother(console.path), 0);
    CTestOperator own(console.path);
    EXPECT_TRUE(own.type("help\n"));
    EXPECT_NE(own.readUntil("\n"), "");
}

TEST(ConsoleStranger, TheDefaultFolderIsOfItsUserAlone) {
    ::setenv("XDG_RUNTIME_DIR", std::filesystem::path(TestSupport::consolePath()).parent_path().c_str(), 1);
    ASSERT_TRUE(CConsoleHost::start());
    EXPECT_EQ(modeOf(CConsoleHost::defaultFolder()), 0700U);
    CConsoleHost::stop();
    ::chmod(CConsoleHost::defaultFolder().c_str(), 0755);
    TestSupport::CLogCapture log;
    EXPECT_FALSE(CConsoleHost::start());
    EXPECT_EQ(log.count(LOG_LEVEL_WARNING, "no folder of one's own"), 1);
}

TEST(ConsoleStranger, TheSocketGoesWithTheHostAndAnAbandonedOneIsReplaced) {
    const std::string path = TestSupport::consolePath();
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ::close(fd);
    ASSERT_TRUE(std::filesystem::exists(path));
    ASSERT_TRUE(CConsoleHost::start(path.c_str()));
    CConsoleHost::stop();
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(ConsoleStranger, AFileThatIsNoSocketIsLeftAlone) {
    const std::string path = TestSupport::consolePath("file");
    std::fclose(std::fopen(path.c_str(), "w"));
    TestSupport::CLogCapture log;
    EXPECT_FALSE(CConsoleHost::start(path.c_str()));
    EXPECT_TRUE(std::filesystem::exists(path));
    std::filesystem::remove(path);
}

}  // namespace
}  // namespace Veltro::Plinth
