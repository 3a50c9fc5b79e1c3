// The call scanner: what a "^" in a text starts. The expander and the page checker both read
// texts through it, so they cannot disagree about what a call is.
//
// At a "^": "^^", "^;" and a "^" that ends the text are escapes of the next character. Otherwise
// the name runs to the first "[" after the caret (any characters at all), and the parameter
// list from there to its closing "]": ";" at bracket depth one separates parameters, "^x"
// makes x not structural, and a stretch between backquotes hides brackets and semicolons. A
// parameter wrapped in backquotes loses them. A caret with no "[" after it, a list that never
// closes, and a call with more than MAX_PARAMS parameters all leave the caret as text.
//
// Reading a text costs a bounded number of passes over it, whatever it holds. A call's list is
// read once and the caller moves past it. A list that fails (never closes, or has too many
// parameters) is read, and then the text from there on is read once more to learn the outcome
// of every later list of the same "world": lists that open where a scan from the failed list is
// outside backquotes. Scans from two such lists agree on everything after the later one: the
// escape "^x" only reaches one character, so after a "[" it no longer depends on where a scan
// began, and the backquote state only flips with the parity of the backquotes in between, so
// the one list pass tells, for every later list, its depth level, the separators at that level
// and the "]" that brings the level below it. Lists inside backquotes (for that start) belong
// to the other world, which a failure there learns in its own pass: at most two passes a text.
#ifndef TESSEL_INTERP_SCANNER_H
#define TESSEL_INTERP_SCANNER_H

#include <array>
#include <cstddef>
#include <cstring>
#include <optional>
#include <vector>

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
// next "[" is, so a text with many carets and few brackets is searched once, not per caret, and
// what failed lists taught it (see the top of this file), so that a caller that moves past each
// call reads the text a bounded number of times.
// Requires: the text outlives the scanner; positions passed to read() never decrease.
class call_scanner {
public:
    call_scanner(const char* text, size_t size) : text_(text), size_(size) {}
    call_scanner(const call_scanner&) = delete;
    call_scanner& operator=(const call_scanner&) = delete;

    // Bytes that the scans of every scanner in the process have examined: what tests count to
    // show that a text is read a bounded number of times.
    static inline size_t bytes_examined = 0;

    // Reads the caret at position at (requires text[at] == '^'). For a call, on_param(start,
    // end) receives each parameter's bytes [start, end) in order, enclosing backquotes already
    // dropped. For a caret left as text it may have received some parameters, which the caller
    // discards.
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
        std::optional<caret_kind> known = recall(bracket_);
        if (known && *known != caret_kind::CALL)
            return {*known, bracket_};
        caret_scan found = scan_list(bracket_, on_param);
        if (found.kind != caret_kind::CALL && !known)
            learn_world(bracket_);
        return found;
    }

private:
    // A list that a caret may open, and how it ends.
    struct learnt_list {
        size_t open;
        caret_kind kind; // CALL, UNCLOSED or TOO_MANY
    };

    // The lists of one world from the failed list that started its pass, in increasing
    // positions, and how far lookups have got.
    struct world {
        std::vector<learnt_list> lists;
        size_t next = 0;
    };

    // A list the pass is inside, and the parameters it has ended so far.
    struct open_list {
        size_t index; // in world::lists
        int params;
    };

    // The open lists whose own bracket depth is level: open_lists[first..] while it is the top.
    struct level_lists {
        ptrdiff_t level;
        size_t first;
    };

    // The bytes that mean something inside a parameter list.
    static constexpr std::array<bool, 256> LIST_SYNTAX = [] {
        std::array<bool, 256> syntax{};
        for (unsigned char c : {'[', ']', ';', '`', '^'})
            syntax[c] = true;
        return syntax;
    }();

    // Scans the parameter list that opens at open.
    template <class F> caret_scan scan_list(size_t open, F& on_param)
    {
        int depth = 0, count = 0;
        bool escaped = false, quoted = false;
        size_t start = open + 1;
        for (size_t i = open; i < size_; i++) {
            char c = text_[i];
            if (!LIST_SYNTAX[(unsigned char)c]) {
                escaped = false; // all that any other byte does
                continue;
            }
            if (!escaped && !quoted) {
                if (c == '[')
                    depth++;
                else if (c == ']')
                    depth--;
            }
            if (depth == 0 || (c == ';' && depth == 1 && !escaped && !quoted)) {
                if (++count > MAX_PARAMS) {
                    bytes_examined += i + 1 - open;
                    return {caret_kind::TOO_MANY, open};
                }
                pass_param(start, i, on_param);
                start = i + 1;
            }
            if (c == '`')
                quoted = !quoted; // an escaped backquote toggles too
            if (escaped)
                escaped = false;
            else if (c == '^')
                escaped = true;
            if (depth == 0) {
                bytes_examined += i + 1 - open;
                return {caret_kind::CALL, open, i};
            }
        }
        bytes_examined += size_ - open;
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

    // How the list at open ends, when a pass has learnt it.
    std::optional<caret_kind> recall(size_t open)
    {
        for (int w = 0; w < world_count_; w++) {
            world& known = worlds_[w];
            while (known.next < known.lists.size() && known.lists[known.next].open < open)
                known.next++;
            if (known.next < known.lists.size() && known.lists[known.next].open == open)
                return known.lists[known.next].kind;
        }
        return std::nullopt;
    }

    // Learns, in one pass from the failed list at start to the end of the text, how every list
    // of start's world ends that a later caret can open: at each "[" outside backquotes that a
    // "^" precedes with no "[" in between, escaped or not (a caret's "[" opens its list
    // whatever comes before it). level counts the unescaped brackets the pass is inside; a
    // list at an unescaped "[" sits one level up, at an escaped one on the level it is on. A
    // list's parameters end at the ";" on its level, and the list at the "]" that leaves it.
    void learn_world(size_t start)
    {
        if (world_count_ == 2)
            return; // a world learnt holds every later list of its own
        world& known = worlds_[world_count_++];
        std::vector<open_list> open;
        std::vector<level_lists> levels;
        ptrdiff_t level = 0;
        bool escaped = false, quoted = false, caret_since_bracket = true;
        for (size_t i = start; i < size_; i++) {
            char c = text_[i];
            if (c == '[' && !quoted && caret_since_bracket) {
                ptrdiff_t at = escaped ? level : level + 1;
                if (levels.empty() || levels.back().level != at)
                    levels.push_back({at, open.size()});
                open.push_back({known.lists.size(), 0});
                known.lists.push_back({i, caret_kind::UNCLOSED});
            }
            if (!escaped && !quoted) {
                if (c == '[')
                    level++;
                else if (c == ';' && !levels.empty() && levels.back().level == level)
                    end_param(known, open, levels.back().first);
                else if (c == ']')
                    leave_level(known, open, levels, level--);
            }
            if (c == '[')
                caret_since_bracket = false;
            else if (c == '^')
                caret_since_bracket = true;
            if (c == '`')
                quoted = !quoted;
            if (escaped)
                escaped = false;
            else if (c == '^')
                escaped = true;
        }
        bytes_examined += size_ - start;
    }

    // A ";" ends a parameter of each list open[first..]; a list past MAX_PARAMS has too many.
    static void end_param(world& known, std::vector<open_list>& open, size_t first)
    {
        for (size_t k = first; k < open.size();) {
            if (++open[k].params <= MAX_PARAMS) {
                k++;
                continue;
            }
            known.lists[open[k].index].kind = caret_kind::TOO_MANY;
            open[k] = open.back();
            open.pop_back();
        }
    }

    // A "]" on level closes the lists there: its last parameter ends.
    static void leave_level(world& known, std::vector<open_list>& open,
                            std::vector<level_lists>& levels, ptrdiff_t level)
    {
        if (levels.empty() || levels.back().level != level)
            return;
        for (size_t k = levels.back().first; k < open.size(); k++)
            known.lists[open[k].index].kind =
                open[k].params + 1 > MAX_PARAMS ? caret_kind::TOO_MANY : caret_kind::CALL;
        open.resize(levels.back().first);
        levels.pop_back();
    }

    const char* text_;
    size_t size_;
    size_t bracket_ = 0; // the next "[" after the last caret read; size_ when there is none
    bool searched_ = false;
    world worlds_[2];
    int world_count_ = 0;
};

#endif
