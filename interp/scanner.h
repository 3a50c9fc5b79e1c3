// The call scanner: what a "^" in a text starts. The expander and the page checker both read
// texts through it, so they cannot disagree about what a call is.
//
// At a "^": "^^", "^;" and a "^" that ends the text are escapes of the next character. Otherwise
// the name runs to the first "[" after the caret (any characters at all), and the parameter
// list from there to its closing "]": ";" at bracket depth one separates parameters, "^x"
// makes x not structural, and a stretch between backquotes hides brackets and semicolons. A
// parameter wrapped in backquotes loses them. A caret with no "[" after it, a list that never
// closes, and a call with more than MAX_PARAMS parameters all leave the caret as text.
#ifndef TESSEL_INTERP_SCANNER_H
#define TESSEL_INTERP_SCANNER_H

#include <cstddef>
#include <cstring>

#include "interp/registry.h"

// What the "^" at a position starts.
enum class caret_kind {
    ESCAPE,     // the next character stands for itself (nothing when the text ends)
    CALL,       // a call: the name between the caret and open, parameters up to close
    NO_BRACKET, // no "[" anywhere after the caret: the caret is text
    UNCLOSED,   // the parameter list opened at open never closes: the caret is text
    TOO_MANY,   // the list opened at open has more than MAX_PARAMS parameters: the caret is text
};

struct caret_scan {
    caret_kind kind;
    size_t open = 0;  // the "[" after the name (CALL, UNCLOSED, TOO_MANY)
    size_t close = 0; // the closing "]" (CALL)
};

// Reads the carets of one text of size bytes, in increasing positions. It remembers where the
// next "[" is, so a text with many carets and few brackets is searched once, not per caret.
// Requires: the text outlives the scanner; positions passed to read() never decrease.
class call_scanner {
public:
    call_scanner(const char* text, size_t size) : text_(text), size_(size) {}
    call_scanner(const call_scanner&) = delete;
    call_scanner& operator=(const call_scanner&) = delete;

    // Reads the caret at position at (requires text[at] == '^'). For a call, and for the
    // parameters met before a list fails, on_param(start, end) receives each parameter's
    // bytes [start, end) in order, enclosing backquotes already dropped.
    template <class F> caret_scan read(size_t at, F&& on_param)
    {
        char next = at + 1 < size_ ? text_[at + 1] : '\0';
        if (next == '^' || next == ';' || next == '\0')
            return {caret_kind::ESCAPE};
        if (!searched_ || (bracket_ < size_ && bracket_ <= at)) {
            const void* b = memchr(text_ + at + 1, '[', size_ - at - 1);
            bracket_ = b ? (const char*)b - text_ : size_;
            searched_ = true;
        }
        if (bracket_ >= size_)
            return {caret_kind::NO_BRACKET};
        return scan_list(bracket_, on_param);
    }

private:
    // Scans the parameter list that opens at open.
    template <class F> caret_scan scan_list(size_t open, F& on_param)
    {
        int depth = 0, count = 0;
        bool escaped = false, quoted = false;
        size_t start = open + 1;
        for (size_t i = open; i < size_; i++) {
            char c = text_[i];
            if (!escaped && !quoted) {
                if (c == '[')
                    depth++;
                else if (c == ']')
                    depth--;
            }
            if (depth == 0 || (c == ';' && depth == 1 && !escaped && !quoted)) {
                if (++count > MAX_PARAMS)
                    return {caret_kind::TOO_MANY, open};
                pass_param(start, i, on_param);
                start = i + 1;
            }
            if (c == '`')
                quoted = !quoted; // an escaped backquote toggles too
            if (escaped)
                escaped = false;
            else if (c == '^')
                escaped = true;
            if (depth == 0)
                return {caret_kind::CALL, open, i};
        }
        return {caret_kind::UNCLOSED, open};
    }

    // Hands [start, end) on, without one pair of enclosing backquotes.
    template <class F> void pass_param(size_t start, size_t end, F& on_param)
    {
        if (end > start && text_[start] == '`' && text_[end - 1] == '`') {
            start++;
            end = end > start ? end - 1 : start;
        }
        on_param(start, end);
    }

    const char* text_;
    size_t size_;
    size_t bracket_ = 0; // the next "[" after the last caret read; size_ when there is none
    bool searched_ = false;
};

#endif
