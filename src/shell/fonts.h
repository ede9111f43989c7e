#pragma once
#include <QFont>
#include <QFontDatabase>
#include <QFontInfo>
#include <QStringList>

namespace pyro {

// 宋体 where the design names it, else the faces that stand in for it.
// AR PL UMing CN (a Song face) comes before WenQuanYi Micro Hei: Micro Hei
// maps 13 characters of GBK (℃ ℉ Ⅴ Ⅹ ˊ ˋ ǎ ǐ ǒ ǔ ǘ ǚ ǜ) to empty glyphs, and
// Qt takes every character of a Chinese run, the ℃ of "温度(℃)" too, from the
// first face that writes Chinese, so they came out blank. UMing draws every
// GBK character it has; those it lacks fall through to the faces after it.
inline QStringList songFamilies()
{
    return {QStringLiteral("SimSun"), QStringLiteral("宋体"), QStringLiteral("NSimSun"),
            QStringLiteral("AR PL UMing CN"), QStringLiteral("Noto Serif CJK SC"),
            QStringLiteral("WenQuanYi Micro Hei"), QStringLiteral("Noto Sans CJK SC")};
}

// The face for the texts of the table files (the grids, the plots), whose
// captions and units may use any GBK character: the 宋体 chain, and without
// 宋体 a Latin face for Latin text, the window's own unless it writes Chinese
// too (then it would take the ℃ again), else DejaVu Sans.
inline QFont tableFont(const QFont &base)
{
    QStringList l = songFamilies();
    const QString own = QFontInfo(base).family();
    QStringList latin{QStringLiteral("DejaVu Sans")};
    if (!QFontDatabase::writingSystems(own).contains(QFontDatabase::SimplifiedChinese))
        latin.prepend(own);
    for (int i = 0; i < latin.size(); ++i)
        l.insert(3 + i, latin[i]);
    QFont f = base;
    f.setFamilies(l);
    return f;
}

} // namespace pyro
