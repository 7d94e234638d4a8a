// The head of an HTTP/1.1 request, read with the text parser.
#pragma once

#include <Ravelo/StrParser.h>

#include <array>
#include <cstdint>
#include <string_view>

/// The bytes that end a piece: a name all that is no token, a value all control bytes but HT.
struct SHttpEnds {
    std::array<unsigned char, 256> name{};
    std::array<unsigned char, 256> value{};
};
inline constexpr SHttpEnds HTTP_ENDS = [] {
    constexpr std::string_view separators = "\"(),/:;<=>?@[\\]{}";
    SHttpEnds ends;
    for (unsigned c = 0; c < 256; ++c) {
        const bool printable = c > ' ' && c < 127;
        ends.name[c] = !printable || separators.find(static_cast<char>(c)) != separators.npos;
        ends.value[c] = (c < ' ' && c != '\t') || c == 127;
    }
    return ends;
}();

/// What the server wants to know of a request. Everything is read strictly: lines end with CR LF, names are
/// tokens, no control bytes stand anywhere, lengths are digits.
class CHttpRequest {
public:
    static constexpr int INCOMPLETE = 0;
    static constexpr int OK = 200;
    static constexpr std::uint64_t BODY_LIMIT_BYTES = 1024 * 1024;

    bool m_head = false;
    bool m_get = false;
    bool m_keep_alive = true;
    bool m_expects_continue = false;
    bool m_found = true;  ///< whether the target is the page
    std::uint64_t m_body_bytes = 0;
    // Pieces of the text, for as long as it stays attached; empty without such a field.
    std::string_view m_target;
    std::string_view m_range;
    std::string_view m_if_range;

    /// Reads a head at the cursor and moves behind it.
    /// @return OK, the status of a refusal, or INCOMPLETE: call again from the same place with more.
    int Parse(Veltro::Ravelo::CStrParser& text) {
        *this = CHttpRequest();
        text.ExpectEOL();  // some clients send one too many after a body
        int status = parse_request_line(text);
        while (status == OK && text.Expect('\r') < 0) status = parse_field(text);
        if (status == OK && text.Expect('\n') < 0) status = refuse(text);
        return status == OK ? judge() : status;
    }

private:
    /// What does not fit is wrong if its line is complete; else the rest may still come.
    static int refuse(Veltro::Ravelo::CStrParser& text) {
        return text.ConsumeUntil('\n') >= 0 ? 400 : INCOMPLETE;
    }
    static std::string_view piece(Veltro::Ravelo::CStrParser& text, int from) {
        return {text.GetString() + from, static_cast<std::size_t>(text.GetCurOffset() - from)};
    }

    int parse_request_line(Veltro::Ravelo::CStrParser& text) {
        std::array<char, 16> method{};
        if (text.ConsumeWord(method.data(), method.size()) < 1 || text.Expect(' ') < 0) return refuse(text);
        const int target = text.GetCurOffset();
        text.ConsumeWord(nullptr, 0);
        m_target = piece(text, target);
        m_found = m_target == "/";
        if (text.Expect(' ') < 0 || text.Compare("HTTP/") != 0) return refuse(text);
        text.ConsumeLength(5, nullptr, 0);
        const int version = text.GetCurOffset();
        text.ConsumeWord(nullptr, 0);
        const std::string_view number = piece(text, version);
        if (number.empty() || text.Expect('\r') < 0 || text.Expect('\n') < 0) return refuse(text);
        m_keep_alive = m_needs_host = number == "1.1";
        const std::string_view name(method.data());
        m_head = name == "HEAD";
        m_get = name == "GET";
        if (!m_needs_host && number != "1.0") return 505;
        return m_head || m_get || name == "POST" ? OK : 501;
    }

    int parse_field(Veltro::Ravelo::CStrParser& text) {
        const int start = text.GetCurOffset();
        const bool ends = text.ConsumeUntil(HTTP_ENDS.name.data()) > 0;
        const int name_bytes = text.GetCurOffset() - start;
        if (!ends || text.Expect(':') < 0) return refuse(text);
        text.ConsumeWhitespaceInLine();
        const int value = text.GetCurOffset();
        if (text.ConsumeUntilinLine(HTTP_ENDS.value.data()) < 0) return INCOMPLETE;
        const int value_end = text.GetCurOffset();
        if (text.Expect('\r') < 0 || text.Expect('\n') < 0) return refuse(text);
        const int next = text.GetCurOffset();
        const auto is = [&text, start, name_bytes](std::string_view name) {
            return static_cast<int>(name.size()) == name_bytes && text.LocateOffset(start) == start &&
                   text.CompareCase(name.data()) == 0;
        };
        int status = OK;
        if (is("Host")) status = m_host++ == 0 ? OK : 400;
        if (is("Transfer-Encoding")) status = 501;
        if (is("Expect")) m_expects_continue = m_needs_host;
        if (is("Content-Length")) status = take_length(text, value, value_end);
        if (is("Connection")) take_connection(text, value);
        const auto whole = [&text, value, value_end] {
            return std::string_view(text.GetString() + value, static_cast<std::size_t>(value_end - value));
        };
        if (is("Range")) m_range = whole();
        if (is("If-Range")) m_if_range = whole();
        text.LocateOffset(start);
        text.ConsumeLength(static_cast<unsigned>(next - start), nullptr, 0);
        return status;
    }

    int take_length(Veltro::Ravelo::CStrParser& text, int value, int value_end) {
        std::string_view digits(text.GetString() + value, static_cast<std::size_t>(value_end - value));
        digits = digits.substr(0, digits.find_last_not_of(" \t") + 1);
        if (m_lengths++ > 0 || digits.empty() || digits.find_first_not_of("0123456789") != digits.npos)
            return 400;
        text.LocateOffset(value);
        m_body_bytes = text.ConsumeUint64();
        return OK;
    }

    void take_connection(Veltro::Ravelo::CStrParser& text, int value) {
        text.LocateOffset(value);
        if (text.LocateStringInLineCase("keep-alive") >= 0) m_keep_alive = true;
        text.LocateOffset(value);
        if (text.LocateStringInLineCase("close") >= 0) m_keep_alive = false;
    }

    int judge() const {
        if (m_needs_host && m_host == 0) return 400;
        return m_body_bytes > BODY_LIMIT_BYTES ? 413 : OK;
    }

    bool m_needs_host = true;  ///< HTTP/1.1
    int m_host = 0;
    int m_lengths = 0;
};
