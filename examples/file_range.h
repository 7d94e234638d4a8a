// The Range field of an HTTP request.
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

/// The bytes of a file that a request wants.
struct SFileRange {
    enum class EKind { WHOLE, PART, NONE };

    EKind kind = EKind::WHOLE;  ///< NONE: the file has no such bytes
    std::uint64_t begin = 0;
    std::uint64_t length = 0;

    /// What a field asks for of a file; one that is no single range of bytes asks for the whole.
    static SFileRange Of(std::string_view field, std::uint64_t size) {
        const SFileRange whole{EKind::WHOLE, 0, size};
        if (field.substr(0, 6) != "bytes=") return whole;
        field = trimmed(field.substr(6));
        const std::size_t dash = field.find('-');
        if (dash == field.npos) return whole;
        std::uint64_t first = 0;
        std::uint64_t last = 0;
        const bool has_first = number(trimmed(field.substr(0, dash)), first);
        const bool has_last = number(trimmed(field.substr(dash + 1)), last);
        const bool first_empty = dash == 0;
        const bool last_empty = dash + 1 == field.size();
        if (first_empty && has_last) return part(last < size ? size - last : 0, size, last != 0 && size != 0);
        if (!has_first || (!has_last && !last_empty) || (has_last && last < first)) return whole;
        if (last_empty || last >= size) last = size - 1;
        return part(first, last + 1, first < size);
    }

    /// The status of an answer that has them.
    int Status() const { return kind == EKind::WHOLE ? 200 : kind == EKind::PART ? 206 : 416; }
    /// The line of its head that names them; empty if they are the whole.
    std::string ContentRange(std::uint64_t size) const {
        if (kind == EKind::WHOLE) return {};
        const std::string which =
            kind == EKind::NONE ? "*" : std::to_string(begin) + "-" + std::to_string(begin + length - 1);
        return "Content-Range: bytes " + which + "/" + std::to_string(size) + "\r\n";
    }

private:
    static SFileRange part(std::uint64_t begin, std::uint64_t end, bool is_there) {
        if (!is_there) return {EKind::NONE, 0, 0};
        return {EKind::PART, begin, end - begin};
    }
    static std::string_view trimmed(std::string_view text) {
        while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
        while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
        return text;
    }
    /// Digits only; what no number holds counts as the greatest one.
    static bool number(std::string_view digits, std::uint64_t& value) {
        constexpr std::uint64_t GREATEST = std::numeric_limits<std::uint64_t>::max();
        value = 0;
        for (const char c : digits) {
            if (c < '0' || c > '9') return false;
            const auto digit = static_cast<std::uint64_t>(c - '0');
            value = value > (GREATEST - digit) / 10 ? GREATEST : value * 10 + digit;
        }
        return !digits.empty();
    }
};
