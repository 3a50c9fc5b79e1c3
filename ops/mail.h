// The attachment builder: files turned into uuencoded blocks that pages place in mail
// messages (`uuencode`, `upload` with "uuencode"). A null string reads as empty text.
#ifndef TESSEL_OPS_MAIL_H
#define TESSEL_OPS_MAIL_H

// The block for length bytes of data offered as name: a "Content-Type:" line with the media
// type of the name's extension (case-insensitive; "Application/Octet-Stream" when unknown),
// "Content-Transfer-Encoding: x-uuencode", a "Content-Disposition: attachment" line, a blank
// line, "begin 644 NAME", the data in lines of 45 bytes each led by its count character, and
// the trailer "`\nend\n". Null when data is null or length is below 1.
// Ownership: borrows data and name, new result.
char* build_attachment(const char* data, int length, const char* name);

#endif
