#pragma once
#include "infoblock.h"

#include <QRect>
#include <QSize>
#include <QString>
#include <array>

namespace pyro {

// The window BitInfForm that shows a device's information block after a
// read: its design as data, the texts of its four boxes, and the service code
// that reveals the block's RemarkStamp in the last box.

enum class FormControlKind { Label, TextBox, Line, Button };

struct FormControl {
    FormControlKind kind;
    const char *name;
    int index;                           // of a control array, -1 for a single control
    QRect rect;                          // twips; a line runs from its top left to its top right
    QString caption;
    bool enabled = true;
    bool readOnly = false;
    int tabIndex = -1;                   // -1: not in the tab order
};

extern const QString kBitInfFormCaption; // "Version Information"
constexpr QSize kBitInfFormClient{4230, 2370};
// In design order: the four labels and boxes, the rule, Command1.
extern const std::array<FormControl, 10> kBitInfFormLayout;

extern const QString kServiceCode;       // "vkrtq"

struct BitInfFormState {
    std::array<QString, 4> Text1;        // Device ID, Order ID, DateUpdated, Remark
    QString RemarkStamp;                 // shown only when the service code is typed
};

// The window as it opens for the record just read; Text1(3) starts empty.
BitInfFormState BitInfFormLoad(const BitInfRec &rec);

// A change of the text of Text1(index), by a key or a paste. When Text1(3)
// then reads exactly the service code it becomes RemarkStamp, all ten
// characters with their padding; true when that happened, so that the window
// copies the box's text back. Matching is exact: upper case or the code
// inside a longer text does nothing.
bool Text1Change(BitInfFormState &s, int index, const QString &text);

} // namespace pyro
