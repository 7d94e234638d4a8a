// What the text parser is compared with: the same operations, written to be read and not to be fast.
#pragma once

#include <cstdint>
#include <string>

namespace Veltro::Ravelo {

/// A text and a cursor. Every operation mirrors the parser's one of the same name; positions are indexes and
/// each byte is asked for by at(), which knows nothing beyond the text.
class CStrParserReference {
public:
    CStrParserReference(std::string given, int given_offset) : text(std::move(given)), offset(given_offset) {}

    std::string text;
    int offset;
    int status = 0;

    int length() const { return static_cast<int>(text.size()); }
    /// The byte at an index, or -1 outside the text.
    int at(int index) const {
        return index >= 0 && index < length()
                   ? static_cast<unsigned char>(text[static_cast<std::size_t>(index)])
                   : -1;
    }

    int GetCurChar() const;
    int CheckPrevChar() const;
    int LocateOffset(int n);
    int ResetToLineHead();
    bool Compare(const std::string& s) const;  ///< whether s comes
    bool CompareCase(const std::string& s) const;
    int Expect(char c);
    int ExpectEOL();

    std::int64_t ConsumeInt64();
    std::uint64_t ConsumeUint64();
    double ConsumeDouble();
    unsigned ConsumeHexUint32();

    // The copying forms give the whole piece; the caller cuts it.
    int ConsumeWord(std::string* piece);
    int ConsumeWhitespace();
    int ConsumeWhitespaceInLine();
    int ConsumeLength(unsigned n, std::string* piece);
    int ConsumeSentence(const std::string& delims, std::string* piece);
    int ConsumeUntilDigit();
    int ConsumeUntilHexDigit();
    int ConsumeUntil(char c);
    int ConsumeUntil(const unsigned char* table);
    int ConsumeUntilinLine(char c);
    int ConsumeUntilinLine(const unsigned char* table);
    int GetThru(char c);
    int ConsumeUntilNextLine();
    int ConsumeIpAddr(std::string* out, unsigned size);

    int GetLineNum() const;
    int GetCurLinelength() const;
    int GetLineNumWithHead(const std::string& head) const;
    int GetLineWithHead(const std::string& head, std::string* line);
    int LocateString(const std::string& s);
    int LocateStringCase(const std::string& s);
    int LocateStringInLine(const std::string& s);
    int LocateStringInLineCase(const std::string& s);

private:
    /// The cursor, or the end if it is beyond.
    int here() const { return offset < length() ? offset : length(); }
    /// Moves to an index; the bytes between.
    int go(int index);
    /// The bytes that the number at the cursor has, or "" without one; *runs_to_end as it says.
    std::string number(bool* runs_to_end) const;
    int locate(const std::string& s, int to, bool any_case);
    int lineHead() const;
    /// The index of the first line from the cursor on with that beginning, from a given line on; or -1.
    int findLine(const std::string& head, int line) const;
    int firstLine() const;
    int nextLine(int index) const;
};

}  // namespace Veltro::Ravelo
