#include "bitinfform.h"

namespace pyro {

const QString kBitInfFormCaption = QStringLiteral("Version Information");
const QString kServiceCode = QStringLiteral("vkrtq");

using K = FormControlKind;
const std::array<FormControl, 10> kBitInfFormLayout{{
    {K::Label, "Label1", 0, {240, 240, 990, 180}, QStringLiteral("Device ID："), true, false, -1},
    {K::TextBox, "Text1", 0, {1320, 200, 2775, 300}, {}, false, true, 1},
    {K::Label, "Label1", 1, {240, 645, 900, 180}, QStringLiteral("Order ID："), true, false, -1},
    {K::TextBox, "Text1", 1, {1320, 600, 2775, 300}, {}, true, true, 2},
    {K::Label, "Label1", 2, {240, 1035, 1170, 180}, QStringLiteral("DateUpdated："), true, false, -1},
    {K::TextBox, "Text1", 2, {1320, 1000, 2775, 300}, {}, true, true, 3},
    {K::Label, "Label1", 3, {240, 1440, 720, 180}, QStringLiteral("Remark："), true, false, -1},
    {K::TextBox, "Text1", 3, {1320, 1400, 2775, 300}, {}, true, false, 4},
    // The grey rule across the window above the button.
    {K::Line, "Line1", -1, {0, 1800, 4230, 0}, {}, true, false, -1},
    {K::Button, "Command1", -1, {3120, 1920, 975, 375}, QStringLiteral("Enter"), true, false, 0},
}};

BitInfFormState BitInfFormLoad(const BitInfRec &rec)
{
    BitInfFormState s;
    s.Text1[0] = QString::number(rec.DeviceId);
    s.Text1[1] = rec.OrderId;
    s.Text1[2] = rec.DateUpdated;
    s.RemarkStamp = rec.RemarkStamp;
    return s;
}

bool Text1Change(BitInfFormState &s, int index, const QString &text)
{
    if (index < 0 || index >= int(s.Text1.size()))
        return false;
    s.Text1[size_t(index)] = text;
    // The replacement raises the change again; the stamp no longer reads as
    // the code, so it ends there.
    if (s.Text1[3] != kServiceCode)
        return false;
    s.Text1[3] = s.RemarkStamp;
    return true;
}

} // namespace pyro
