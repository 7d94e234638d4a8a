#pragma once

#include <Ravelo/Defs.h>

namespace Veltro::Ravelo {

struct SStrParserRecord;

/// A cursor over a private copy of a text: operations that recognise what stands at the cursor and move over
/// it, and operations that edit the copy in place.
///
/// A text is bytes and may hold NULs if it was attached with a length. Lines end with LF; a CR before it is
/// tolerated. The cursor is an offset from 0 to the length, and one more after a number that ended the text;
/// there every operation behaves as at the end.
///
/// Not locked: one object is used by one thread at a time. Nothing blocks but ConsumeIpAddr() of a host name,
/// nothing logs, nothing throws. A failure returns -1, or the value stated, and leaves the cursor where it
/// was. Letters and spaces are those of ASCII, whatever the locale; spaces are blank, HT, LF, VT, FF and CR.
class RAVELO_API CStrParser {
public:
    /// @name Text
    /// @{

    /// No text: length 0 and a null GetString().
    CStrParser();
    /// As Attach() of the same arguments; GetStatus() tells whether there was memory.
    explicit CStrParser(const char* text);
    CStrParser(const char* text, unsigned int len);
    ~CStrParser();
    CStrParser(const CStrParser&) = delete;
    CStrParser& operator=(const CStrParser&) = delete;

    /// Copies a text in place of the one there was; cursor and status become 0.
    /// @param text NUL-terminated, not null (an assertion). May lie in the object's own copy.
    /// @return 0, or -1 without memory: status -1 and no text.
    int Attach(const char* text);
    /// As Attach(text).
    /// @param len bytes at text, which may include NULs.
    int Attach(const char* text, unsigned int len);
    /// The copy, NUL-terminated; null without one. Valid until the text grows, is attached or the object
    /// ends. After a replacement that shortened the end of the text, old bytes stand between the length and
    /// the NUL.
    const char* GetString() const;
    /// Bytes of the text.
    int GetStringLen() const;
    /// -1 after a failed allocation or a Consume of a number that failed, else 0.
    int GetStatus() const;
    /// How many LFs the whole text holds.
    int GetLineNum() const;
    /// @}

    /// @name Cursor
    /// @{

    int GetCurOffset() const;
    /// The byte at the cursor; 0 at the end.
    char GetCurChar() const;
    /// The byte before the cursor; 0 at the start.
    char CheckPrevChar() const;
    /// Cursor and status become 0.
    void ResetAll();
    /// Moves the cursor to n, or to the nearest of 0 and the last byte. @return it; -1 without text.
    int LocateOffset(int n);
    /// Moves the cursor to the first byte of its line: behind the LF before the cursor; onto that LF if the
    /// text ends there; to 0 without one. A LF belongs to the line that it ends. @return the cursor.
    int ResetToLineHead();
    /// @}

    /// @name Tests at the cursor
    /// @{

    /// @return -1 when fewer bytes than those of s remain, or s is null; else as strncmp() of so many bytes.
    int Compare(const char* s) const;
    /// As Compare(), with letters of either case alike.
    int CompareCase(const char* s) const;
    /// Steps over c. @return the new cursor; -1 if another byte or nothing comes.
    int Expect(char c);
    /// Steps over LF or CR LF. @return the new cursor; -1 if neither comes.
    int ExpectEOL();
    /// @}

    /// @name Numbers
    /// A number is an optional '-', decimal digits, and possibly one '.' with digits behind it. All of it is
    /// moved over, whatever the type asked for. When it is the text's end, the cursor goes one beyond the
    /// length. GetStatus() tells failure from a value: 0 or -1. What does not fit 64 bits becomes the nearest
    /// value.
    /// @{

    /// @return the whole part; -1 failed.
    std::int64_t ConsumeInt64();
    /// @return the whole part, that of a negative number modulo 2^64; 0 failed.
    std::uint64_t ConsumeUint64();
    /// ConsumeInt64(), narrowed.
    short ConsumeInt16();
    /// ConsumeUint64(), narrowed.
    unsigned short ConsumeUint16();
    /// @return the number; -1.0 failed, also when it is too large.
    double ConsumeDouble();
    /// ConsumeDouble(), narrowed.
    float ConsumeFloat();
    /// Moves over hexadecimal digits. @return their value modulo 2^32, 0 if there are none. Fails, with 0,
    /// only at the end of the text.
    unsigned int ConsumeHexUint32();
    /// @}

    /// @name Movement
    /// Each returns the number of bytes moved over, or -1 if it fails. Those with a destination copy what
    /// they moved over: if dst is not null and size above 0, at most size - 1 bytes and a NUL. What they
    /// return is not cut.
    /// @{

    /// Moves over bytes from 33 to 126. Never fails.
    int ConsumeWord(char* dst, unsigned int size);
    /// Moves over spaces. Never fails.
    int ConsumeWhitespace();
    /// Moves over spaces other than CR and LF. Never fails.
    int ConsumeWhitespaceInLine();
    /// Moves over n bytes, or what is left. Never fails.
    int ConsumeLength(unsigned int n, char* dst, unsigned int size);
    /// Moves to behind the first byte that is in delims, or to the end of the text. The delimiter counts but
    /// is not copied; if nothing stands before it, dst is left alone. Never fails.
    /// @param delims NUL-terminated; null as empty.
    int ConsumeSentence(const char* delims, char* dst, unsigned int size);
    /// Moves to the next decimal digit. Fails without one.
    int ConsumeUntilDigit();
    /// Moves to the next hexadecimal digit. Fails without one.
    int ConsumeUntilHexDigit();
    /// Moves to the next c. Fails without one.
    int ConsumeUntil(char c);
    /// Moves to the next byte whose entry of the table is not 0. Fails without one, and for null.
    /// @param table 256 entries.
    int ConsumeUntil(const unsigned char* table);
    /// Moves to the next c of this line. Fails when a LF or the end comes first.
    int ConsumeUntilinLine(char c);
    /// Moves to the next byte whose entry of the table is not 0, or to the LF, which is no failure. Fails
    /// when the end of the text comes first, and for null.
    int ConsumeUntilinLine(const unsigned char* table);
    /// Moves to behind the next c; onto it if it ends the text (it counts all the same). Fails without one.
    int GetThru(char c);
    /// GetThru() of LF.
    int GetThruEOL();
    /// Moves to behind the next LF. If that LF ends the text, moves onto it and returns the cursor instead of
    /// a count. Fails without one.
    int ConsumeUntilNextLine();
    /// @}

    /// @name Addresses
    /// @{

    /// Moves over an address: IPv4 as four numbers, IPv6 with or without brackets, or a host name (bytes from
    /// 33 to 126 up to a ':').
    /// @param out receives the text, IPv4 rewritten without leading zeros, IPv6 without brackets. Not null.
    /// Cut to size bytes; one that fills them all has no NUL, except IPv4, which is cut to size - 1.
    /// @param size bytes at out, at least 7.
    /// @param family if not null, receives 4 or 6, the kind that the text can be made an address of, or -1. A
    /// host name is looked up for that, which blocks the calling thread.
    /// @return bytes of the text in out; -1 failed.
    int ConsumeIpAddr(char* out, unsigned int size, int* family);
    /// @}

    /// @name Lines with a given beginning
    /// The cursor's line is looked at only when the cursor is 0, or at its first byte but not 1.
    /// @{

    /// Bytes of the cursor's line without LF or CR LF.
    int GetCurLinelength() const;
    /// How many lines from the cursor on begin with the bytes of head. @return 0 at the end; -1 for null.
    int GetLineNumWithHead(const char* head) const;
    /// Finds the first line from the cursor on that begins with the bytes of head, and moves behind its LF,
    /// or onto the text's last byte if it ends the text.
    /// @param dst receives the line without LF or CR LF, at most size - 1 bytes and a NUL.
    /// @return the line's length, not the copy's; 0 if dst is null or size 0; -1 without such a line.
    int GetLineWithHead(const char* head, char* dst, unsigned int size);
    /// @}

    /// @name Search
    /// The Case forms take letters of either case as alike.
    /// @{

    /// Moves to the next s from the cursor on. @return the cursor; -1 without one, and if s is null or empty.
    int LocateString(const char* s);
    int LocateStringCase(const char* s);
    /// The same up to the end of the line; s may end with the line's LF.
    int LocateStringInLine(const char* s);
    int LocateStringInLineCase(const char* s);
    /// The first occurrence of some bytes in others.
    /// @return a pointer into hay; null without one, for null pointers and for lengths below 1.
    static unsigned char* MemMem(unsigned char* hay, int hay_len, unsigned char* needle, int needle_len);
    static unsigned char* MemMemCase(unsigned char* hay, int hay_len, unsigned char* needle, int needle_len);
    /// @}

    /// @name Editing
    /// Replacements put a printed value, or a text, in the place of what stands at the cursor, which stays
    /// where it is. A text that grows by that ends with CR LF afterwards if it did not end with LF before.
    /// @{

    /// Replaces the number at the cursor. @return bytes of the new one; -1 if there is no number, if it ends
    /// the text, or without memory: nothing is changed then.
    int ReplaceInt64(std::int64_t value);
    int ReplaceInt32(int value);
    int ReplaceInt16(short value);
    int ReplaceUint64(std::uint64_t value);
    int ReplaceUint32(unsigned int value);
    int ReplaceUint16(unsigned short value);
    /// Printed with six decimals.
    int ReplaceFloat(float value);
    /// As ReplaceFloat(), cut to 255 bytes.
    int ReplaceDouble(double value);
    /// Replaces as many bytes from the cursor as ConsumeIpAddr() finds the address to have: of a bracketed
    /// one, the last byte and the bracket behind it remain.
    /// @return bytes of the new text; -1 for null, without an address, or without memory.
    int ReplaceIpAddr(const char* text);
    /// Overwrites n bytes, or what is left, and moves over them; spaces fill up what text is too short for.
    /// @param text null as empty. @return the cursor.
    int ReplaceLength(int n, const char* text);
    /// Adds to the end of the text. @return the new length; -1 for null, or without memory: the text is lost
    /// then.
    int Append(const char* text);
    /// @}

private:
    friend struct SStrParserRecord;
    /// Moves to the next s within the offsets from `from` to `to` - 1.
    int LocateString(const char* s, int from, int to);
    int LocateStringCase(const char* s, int from, int to);

    SStrParserRecord* m_internal;
};

}  // namespace Veltro::Ravelo
