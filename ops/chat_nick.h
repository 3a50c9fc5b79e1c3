// The chat's nicks: which texts are nicks, and when two nicks are the same nick.
//
// A nick is read in the chat's code page: a Cyrillic code page of core/charset.h, or UTF-8
// for CHARSET_NONE. A null string reads as empty text.
//
// A nick has 2 to 20 characters: letters, digits, "_", "-" and ".", starting with a letter or
// a digit, its letters all Latin (a-z) or all Cyrillic (the Russian alphabet with ё). Nothing
// else is a letter: no invisible character, no accented or foreign letter, so that no nick
// can look like another by holding one.
//
// Two nicks are the same when their folded forms are equal. Folding lower-cases, drops the
// separators, reads a digit as the letter it looks like (0 o, 1 l, 2 z, 3 e, 4 a, 5 s, 6 g,
// 7 t, 8 b, 9 q) and i as l, reads each Cyrillic letter that looks like a Latin one as that
// letter (а a, в b, е e, к k, м m, н h, о o, р p, с c, т t, у y, х x, ...), and then "rn" as
// "m" and "vv" as "w". So "Ann", "ann_" and "апп" (in Cyrillic letters) are one nick, and
// "tr0ll", "troll." and "TROLL" are all "troll".
#ifndef TESSEL_OPS_CHAT_NICK_H
#define TESSEL_OPS_CHAT_NICK_H

// Why nick cannot be a nick in the code page charset, or null when it can be:
// "a nick has 2 to 20 characters", "a nick holds only letters, digits, '_', '-' and '.'",
// "a nick starts with a letter or a digit", "a nick's letters are all Latin or all Cyrillic".
// Ownership: borrows nick, static result.
const char* chat_nick_error(const char* nick, int charset);

// The folded form of nick in the code page charset, in UTF-8 (letters that look like no Latin
// letter stay Cyrillic); null when nick cannot be a nick. Ownership: borrows nick, new result.
char* chat_nick_fold(const char* nick, int charset);

#endif
