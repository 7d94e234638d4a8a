// The answers of the HTTP server.
#pragma once

#include <Plinth/Plinth.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <string>
#include <string_view>

/// Prints answers; those with the page from a text that is made anew each second. Any thread may call.
class CHttpAnswers {
public:
    /// Adds the page, or its head alone.
    void AppendPage(std::string& output, bool head_only, bool keep_alive) {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        refresh();
        if (!keep_alive) {
            output += make(200, false, m_date, head_only);
        } else {
            output.append(m_page, 0, m_page.size() - (head_only ? PAGE.size() : 0));
        }
    }
    /// Adds an answer whose page is its status.
    void AppendStatus(std::string& output, int status, bool head_only, bool keep_alive) {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        refresh();
        output += make(status, keep_alive, m_date, head_only);
    }
    /// Adds the head of an answer whose bytes come from elsewhere. @param fields more of it, lines with their
    /// ends.
    void AppendHead(std::string& output, int status, std::uint64_t length, const std::string& fields,
                    bool keep_alive) {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        refresh();
        output += head(status, keep_alive, m_date, "application/octet-stream", length, fields);
    }

private:
    using Seconds = std::chrono::sys_seconds;

    static constexpr std::string_view PAGE = "Hello, world\n";

    static const char* reason(int status) {
        switch (status) {
            case 200:
                return "OK";
            case 206:
                return "Partial Content";
            case 404:
                return "Not Found";
            case 413:
                return "Content Too Large";
            case 416:
                return "Range Not Satisfiable";
            case 431:
                return "Request Header Fields Too Large";
            case 501:
                return "Not Implemented";
            case 505:
                return "HTTP Version Not Supported";
            default:
                return "Bad Request";
        }
    }
    static std::string make(int status, bool keep_alive, const std::string& date, bool head_only) {
        const std::string line = std::to_string(status) + " " + reason(status);
        const std::string page = status == 200 ? std::string(PAGE) : line + "\n";
        return head(status, keep_alive, date, "text/plain", page.size(), "") + (head_only ? "" : page);
    }
    static std::string head(int status, bool keep_alive, const std::string& date, const char* type,
                            std::uint64_t length, const std::string& fields) {
        return "HTTP/1.1 " + std::to_string(status) + " " + reason(status) +
               "\r\nServer: ravelo\r\nDate: " + date + "\r\nContent-Type: " + type +
               "\r\nContent-Length: " + std::to_string(length) + "\r\n" + fields +
               "Connection: " + (keep_alive ? "keep-alive" : "close") + "\r\n\r\n";
    }
    static std::string print(Seconds now) {
        using namespace std::chrono;
        constexpr const char* days_of_week[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
        constexpr const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
        const sys_days today = floor<days>(now);
        const year_month_day date(today);
        const hh_mm_ss time(now - today);
        std::array<char, 64> text{};
        std::snprintf(text.data(), text.size(), "%s, %02u %s %04d %02d:%02d:%02d GMT",
                      days_of_week[weekday(today).c_encoding()], static_cast<unsigned>(date.day()),
                      months[static_cast<unsigned>(date.month()) - 1], static_cast<int>(date.year()),
                      static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                      static_cast<int>(time.seconds().count()));
        return text.data();
    }
    void refresh() PLINTH_REQUIRES(m_mutex) {
        const Seconds now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
        if (now == m_made) return;
        m_made = now;
        m_date = print(now);
        m_page = make(200, true, m_date, false);
    }

    Veltro::Plinth::CMutex m_mutex;
    Seconds m_made PLINTH_GUARDED_BY(m_mutex){};
    std::string m_date PLINTH_GUARDED_BY(m_mutex);
    std::string m_page PLINTH_GUARDED_BY(m_mutex);  ///< the answer to most requests
};
