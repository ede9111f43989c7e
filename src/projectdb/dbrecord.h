#pragma once
#include "gbk.h"
#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <cstdint>

namespace pyro {

// One record of a .MPK file: 2790 bytes, header and item alike. The struct is
// the decoded form; EncodeRecord/DecodeRecord are the only places that know
// where each field stands in the bytes.
constexpr int kRecordSize = 2790;

namespace rec {
// Byte offsets and widths inside a record. The 32-bit links sit on odd
// boundaries on purpose: the file is packed, nothing is aligned.
constexpr int Used = 0;
constexpr int ParentRec = 2;
constexpr int PrevRec = 6;
constexpr int NextRec = 10;
constexpr int ChildRec = 14;
constexpr int SelfRec = 18;
constexpr int ParentKey = 22, FixedWidth = 20;
constexpr int NodeKey = 42;
constexpr int Caption = 62, CaptionWidth = 42;
constexpr int Reserved1 = 104;
constexpr int Expanded = 106;
constexpr int NodeColor = 108;
constexpr int ParamImage = 112, ParamImageWidth = 1026;
constexpr int FunctionText = 1138, FunctionTextWidth = 1026;
constexpr int ProgramFile = 2164, ProgramFileWidth = 202;
constexpr int ConfigFile = 2366, NoteWidth = 102;
constexpr int DisplayFile = 2468;
constexpr int OrderNumber = 2570;
constexpr int Remark = 2672;
constexpr int Reserved2 = 2774, Reserved2Width = 14;
constexpr int Reserved3 = 2788;
} // namespace rec

// Text limits in bytes; a packed field holds two more.
constexpr int kCaptionLimit = 40;
constexpr int kFunctionLimit = 1024;
constexpr int kProgramLimit = 200;
constexpr int kNoteLimit = 100;
constexpr int kLastUserLimit = 12;

// The header's one type test and its companion line.
inline const QString kAuthorLine = QStringLiteral("作者：Dovrin");
inline const QString kMagicLine = QStringLiteral("KOLTA-V1.0");

struct DbRecord {
    int16_t Used = 0;
    int32_t ParentRec = 0;      // header: FirstRec
    int32_t PrevRec = 0;
    int32_t NextRec = 0;
    int32_t ChildRec = 0;
    int32_t SelfRec = 0;
    QByteArray ParentKey = QByteArray(rec::FixedWidth, '\0');    // header: AuthorLine
    QByteArray NodeKey = QByteArray(rec::FixedWidth, '\0');      // header: MagicLine
    QByteArray Caption = QByteArray(rec::CaptionWidth, '\0');
    int16_t Reserved1 = 0;
    int16_t Expanded = 0;       // header: LoginFlag
    int32_t NodeColor = 0;
    QByteArray ParamImage = QByteArray(rec::ParamImageWidth, '\0');
    QByteArray FunctionText = QByteArray(rec::FunctionTextWidth, '\0');  // header: CreatedText
    QByteArray ProgramFile = QByteArray(rec::ProgramFileWidth, '\0');    // header: OpenedText
    QByteArray ConfigFile = QByteArray(rec::NoteWidth, '\0');
    QByteArray DisplayFile = QByteArray(rec::NoteWidth, '\0');
    QByteArray OrderNumber = QByteArray(rec::NoteWidth, '\0');
    QByteArray Remark = QByteArray(rec::NoteWidth, '\0');
    QByteArray Reserved2 = QByteArray(rec::Reserved2Width, '\0');        // header: LastUser
    int16_t Reserved3 = 0;
};

// Record 1 uses the same bytes under other names.
inline int32_t &FirstRec(DbRecord &h) { return h.ParentRec; }
inline int32_t FirstRec(const DbRecord &h) { return h.ParentRec; }
inline int16_t &LoginFlag(DbRecord &h) { return h.Expanded; }
inline int16_t LoginFlag(const DbRecord &h) { return h.Expanded; }
inline QByteArray &AuthorLine(DbRecord &h) { return h.ParentKey; }
inline QByteArray &MagicLine(DbRecord &h) { return h.NodeKey; }
inline QByteArray &CreatedText(DbRecord &h) { return h.FunctionText; }
inline QByteArray &OpenedText(DbRecord &h) { return h.ProgramFile; }
inline QByteArray &LastUser(DbRecord &h) { return h.Reserved2; }
inline const QByteArray &AuthorLine(const DbRecord &h) { return h.ParentKey; }
inline const QByteArray &MagicLine(const DbRecord &h) { return h.NodeKey; }
inline const QByteArray &CreatedText(const DbRecord &h) { return h.FunctionText; }
inline const QByteArray &OpenedText(const DbRecord &h) { return h.ProgramFile; }
inline const QByteArray &LastUser(const DbRecord &h) { return h.Reserved2; }

QByteArray EncodeRecord(const DbRecord &r);
// Bytes beyond the array read as 0, so a short buffer never reads out of bounds;
// callers that care check the length themselves.
DbRecord DecodeRecord(const QByteArray &bytes);

// --- texts -----------------------------------------------------------------


// A 20-byte fixed text: GBK, cut to 20 bytes, blanks to the right.
QByteArray PadFixedText(const QString &text);
QString ReadFixedText(const QByteArray &field);

// The text without any blank and any NUL character.
QString StripPadding(const QString &text);

// The one type test of a file. Blanks and NULs count as padding wherever
// they stand, so the whole field is decoded before they are stripped.
bool AuthorLineMatches(const DbRecord &h);

// Text codec of the packed fields. With the empty key the GBK bytes are stored
// as they stand; with a key each byte is XORed with a mask, except a byte that
// equals its mask, so no stored byte is ever 0 and the terminator always ends
// the text. Bytes behind the terminator are left as the field held them.
void PackField(QByteArray &field, const QString &text, const QString &key, int limit);
QString UnpackField(const QByteArray &field, const QString &key, int limit);

// The binary mode of the field codec. It is a function of its own so that a
// user's text that happens to read "BinArray" is stored as a text.
void PackImage(QByteArray &field, const QByteArray &setImage, int blockSize);
void UnpackImage(const QByteArray &field, QByteArray &setImage, int blockSize);

// " 12key" and blanks to 20 characters: the node key of record 12.
QString NodeKeyText(int32_t recNo);
// Record number of a tree key; 0 if the text holds no "key".
int32_t KeyToRec(const QString &key);

// Local date, one blank, local time: the stamp of CreatedText and OpenedText.
QString StampText(const QDateTime &when);

} // namespace pyro
