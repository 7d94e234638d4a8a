// The folder that the file server shows, and nothing outside it.
#pragma once

#include <Ravelo/NFile.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>

/// Turns the target of a request into a file under the folder. Names never lead out of it. Neither do links
/// where std::filesystem resolves them; g++'s for Windows does not. Any thread may call; Find() and
/// OpenFile() ask the file system and may block.
class CFileRoot {
public:
    /// @return whether there is such a folder.
    bool Open(const char* folder) {
        std::error_code error;
        m_root = std::filesystem::canonical(from_utf8(folder), error);
        return !error && std::filesystem::is_directory(m_root, error);
    }
    /// A target without its query and its escapes: the names between its slashes. @return 200, or the status
    /// to refuse it with.
    static int Decode(std::string_view target, std::string& path) {
        target = target.substr(0, target.find_first_of("?#"));
        if (target.empty() || target[0] != '/') return 400;
        path.clear();
        for (std::size_t i = 0; i < target.size(); ++i) {
            if (target[i] != '%') {
                path += target[i];
                continue;
            }
            const int high = i + 2 < target.size() ? digit(target[i + 1]) : -1;
            const int low = high >= 0 ? digit(target[i + 2]) : -1;
            if (low < 0 || high * 16 + low == 0) return 400;
            path += static_cast<char>(high * 16 + low);
            i += 2;
        }
        return 200;
    }
    /// Opens the file of a decoded path for reading. @param owner who gets its messages. @return null when
    /// there is none, or Find() finds none.
    Veltro::Ravelo::CNFile* OpenFile(long owner, const std::string& path) const {
        const std::string place = Find(path);
        return place.empty() ? nullptr : Veltro::Ravelo::CNFile::Open(owner, place.c_str(), "rb", nullptr);
    }
    /// The file of a decoded path, in UTF-8; empty when there is none, or it lies outside, also by a link.
    std::string Find(const std::string& path) const {
        // What other systems take for a separator or a drive is no part of a name here.
        if (path.find_first_of("\\:") != path.npos) return {};
        std::filesystem::path place = m_root;
        std::error_code error;
        std::filesystem::file_status status;
        bool has_links = false;
        for (std::size_t start = 1; start <= path.size();) {
            const std::size_t end = std::min(path.find('/', start), path.size());
            const std::string_view name = std::string_view(path).substr(start, end - start);
            start = end + 1;
            if (name == "..") return {};
            if (name.empty() || name == ".") continue;
            place /= from_utf8(name);
            status = std::filesystem::symlink_status(place, error);
            has_links |= std::filesystem::is_symlink(status);
        }
        if (has_links) {
            place = std::filesystem::canonical(place, error);
            if (error || !is_inside(place)) return {};
            status = std::filesystem::status(place, error);
        }
        if (!std::filesystem::is_regular_file(status)) return {};
        const std::u8string text = place.u8string();
        return {text.begin(), text.end()};
    }

private:
    static std::filesystem::path from_utf8(std::string_view text) {
        return std::u8string(text.begin(), text.end());
    }
    static int digit(char c) {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
    }
    bool is_inside(const std::filesystem::path& place) const {
        const auto end = std::mismatch(m_root.begin(), m_root.end(), place.begin(), place.end()).first;
        return end == m_root.end();
    }

    std::filesystem::path m_root;
};
