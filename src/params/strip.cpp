#include "strip.h"

namespace pyro {

const std::array<MenuImgButton, kMenuImgCount> kMenuImg{{
    {240, QStringLiteral("删除参数恢复默认"), {203, 200}},
    {1200, QStringLiteral("读取控制器当前设置参数"), {52, 52}},
    {2120, QStringLiteral("设置下载到控制器"), {52, 52}},
    {3120, QStringLiteral("设置保存到控制器"), {52, 52}},
    {4080, QStringLiteral("保存修改参数"), {32, 32}},
    {5100, QStringLiteral("显示运行参数"), {331, 325}},
    {6120, QStringLiteral("读取控制器信息"), {292, 293}},
}};

namespace {

// A button that exists and takes mouse events.
bool live(const View &view, int index)
{
    return index >= 0 && index < kMenuImgCount && view.MenuImgEnabled[size_t(index)];
}

} // namespace

QRect MenuImgRect(int index)
{
    if (index < 0 || index >= kMenuImgCount)
        return {};
    return QRect(kMenuImgLeft, kMenuImg[size_t(index)].top, kMenuImgSize, kMenuImgSize);
}

QRect Shape2Rect(const ImageStrip &s)
{
    return QRect(kMenuImgLeft, s.Shape2Top, kMenuImgSize, kMenuImgSize);
}

void MenuImgMouseMove(ImageStrip &s, View &view, int index)
{
    if (!live(view, index))
        return;
    s.Shape2Top = kMenuImg[size_t(index)].top;
    s.Shape2Visible = true;
    MouseHint(view, kMenuImg[size_t(index)].toolTip);
}

void MenuImgMouseDown(ImageStrip &s, const View &view, int index)
{
    if (live(view, index))
        s.Shape2BorderWidth = 2;
}

void MenuImgMouseUp(ImageStrip &s, ParamOps &ops, int index)
{
    if (!ops.link || !live(ops.link->view, index))
        return;
    s.Shape2BorderWidth = 1;
    if (index != 4) {
        MenuImgClick(ops, index);
        return;
    }
    if (!s.saveItem)
        return;
    if (s.saveItem())
        s.Shape2Visible = false;
    ops.link->view.MenuImgEnabled[4] = false;
}

} // namespace pyro
