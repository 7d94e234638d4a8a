#include "console/Attachment.h"

#include <cstdlib>
#include <random>

namespace Veltro::Console {

namespace {

std::string randomWord() {
    std::random_device random;
    std::string word = "=";
    for (int i = 0; i < 4; ++i) word += std::to_string(random());
    return word;
}

}  // namespace

bool CAttachment::open(const std::string& path) {
    m_read.clear();
    m_mark = randomWord();
    const std::string greeting = "mark " + m_mark + "\n";
    if (m_client.attach(path.c_str()) && m_client.send(greeting.data(), greeting.size())) return true;
    m_error = "cannot attach to " + path + ": " + m_client.reason();
    return false;
}

bool CAttachment::readLine(int timeout_ms, std::string& line) {
    std::size_t end = 0;
    while ((end = m_read.find('\n')) == std::string::npos) {
        char bytes[65536];
        const int length = m_client.receive(bytes, sizeof bytes, timeout_ms);
        if (length <= 0) {
            m_error = length < 0 ? "the connection was lost" : "no answer in time";
            if (length < 0 && !m_read.empty()) m_error += ": " + m_read;
            return false;
        }
        m_read.append(bytes, static_cast<std::size_t>(length));
    }
    line = m_read.substr(0, end);
    m_read.erase(0, end + 1);
    return true;
}

bool CAttachment::run(const std::string& command, int timeout_ms, const Line& line, int& result) {
    const std::string typed = command + "\n";
    if (!m_client.send(typed.data(), typed.size())) {
        m_error = "the connection was lost";
        return false;
    }
    for (std::string text; readLine(timeout_ms, text);) {
        if (text.starts_with(m_mark + " ")) {
            result = std::atoi(text.c_str() + m_mark.size());
            return true;
        }
        line(text);
    }
    return false;
}

std::vector<std::string> CAttachment::commands() {
    std::vector<std::string> names;
    int result = 0;
    if (!run(
            "commands", 5'000, [&names](const std::string& name) { names.push_back(name); }, result))
        return {};
    return names;
}

}  // namespace Veltro::Console
