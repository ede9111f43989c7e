#include "design.h"
#include "gridedit.h"
#include "help.h"
#include "items.h"
#include "projectdb.h"
#include "strip.h"

namespace pyro::design {

QString controlId(const QString &name, int index)
{
    return index < 0 ? name : QStringLiteral("%1(%2)").arg(name).arg(index);
}

namespace {

Control c(const QString &name, int index, const QString &parent, QRect r, Kind kind,
          const QString &caption = {}, const QString &toolTip = {})
{
    Control x;
    x.name = name;
    x.index = index;
    x.parent = parent;
    x.twips = r;
    x.kind = kind;
    x.caption = caption;
    x.toolTip = toolTip;
    return x;
}

Control with(Control x, Font f)
{
    x.font = f;
    return x;
}

Control hidden(Control x)
{
    x.visible = false;
    return x;
}

Window makeViewForm()
{
    const QString form = QStringLiteral("ViewForm");
    const QString a = QStringLiteral("Frame1"), b = QStringLiteral("Frame2"), s = QStringLiteral("Frame3");
    const Font song105{true, 10.5, false};
    Window w;
    w.caption = QStringLiteral("Burning");
    w.clientTwips = QSize(18585, 10470);
    w.outerTwips = QSize(13750, 3780);
    QList<Control> &l = w.controls;

    // Regions, in the order they are stacked (later ones on top).
    l << c(QStringLiteral("NotesTxt"), 0, form, {2280, 3120, 6960, 5460}, Kind::Text);
    l << c(QStringLiteral("Frame1"), 0, form, {50, -90, 3600, 2655}, Kind::Frame);
    l << c(QStringLiteral("Frame2"), -1, form, {3580, -90, 9975, 2655}, Kind::Frame);
    l << c(QStringLiteral("Frame3"), -1, form, {12560, 2550, 950, 7095}, Kind::Frame);

    // A: port settings.
    l << c(QStringLiteral("Label5"), 1, a, {150, 360, 540, 180}, Kind::Label, QStringLiteral("Port："));
    l << c(QStringLiteral("ComboSet"), 0, a, {1080, 240, 1215, 300}, Kind::Combo);
    l << c(QStringLiteral("Label14"), -1, a, {150, 780, 900, 180}, Kind::Label, QStringLiteral("BaudRate："));
    l << c(QStringLiteral("ComboSet"), 1, a, {1080, 720, 1215, 300}, Kind::Combo);
    l << c(QStringLiteral("Label2"), 1, a, {150, 1170, 900, 180}, Kind::Label, QStringLiteral("Old Even："));
    l << c(QStringLiteral("ComboSet"), 2, a, {1080, 1130, 1215, 300}, Kind::Combo);
    l << c(QStringLiteral("Label3"), 1, a, {150, 1605, 810, 180}, Kind::Label, QStringLiteral("DatBits："));
    l << c(QStringLiteral("ComboSet"), 3, a, {1080, 1560, 1215, 300}, Kind::Combo);
    l << c(QStringLiteral("Label4"), 1, a, {150, 1970, 975, 255}, Kind::Label, QStringLiteral("StopBit："));
    l << c(QStringLiteral("ComboSet"), 4, a, {1080, 1920, 1215, 300}, Kind::Combo);
    l << c(QStringLiteral("Label4"), 2, a, {150, 2330, 975, 255}, Kind::Label, QStringLiteral("FrameLen："));
    l << c(QStringLiteral("ComboSet"), 5, a, {1080, 2300, 1215, 300}, Kind::Combo);
    l << c(QStringLiteral("Command1"), -1, a, {2400, 240, 1095, 300}, Kind::Button, QStringLiteral("AutoDetect"),
           QStringLiteral("Automatically detects available serial port"));
    l << c(QStringLiteral("Command2"), -1, a, {2400, 720, 1095, 300}, Kind::Button, QStringLiteral("OpenUart"));
    l << c(QStringLiteral("Shape1"), -1, a, {2640, 1440, 615, 615}, Kind::Lamp);

    // B: burn. The bar comes before the path so that it lies behind it.
    l << c(QStringLiteral("Command3"), -1, b, {120, 240, 1095, 300}, Kind::Button, QStringLiteral("Load File"),
           QStringLiteral("Choose to burning. BIN file"));
    l << hidden(c(QStringLiteral("PersLab"), -1, b, {1335, 255, 5000, 270}, Kind::Bar));
    l << with(c(QStringLiteral("InfLab"), -1, b, {1320, 240, 8500, 300}, Kind::BoxLabel), song105);
    l << c(QStringLiteral("RTB"), -1, b, {120, 600, 8700, 1935}, Kind::Log);
    Control program = with(c(QStringLiteral("Command4"), -1, b, {8880, 600, 975, 705}, Kind::Button,
                             QStringLiteral("Program"), QStringLiteral("Burning program")),
                           Font{true, 10.5, true});
    program.enabled = false;
    l << program;
    l << c(QStringLiteral("Check1"), 3, b, {8880, 1360, 1020, 255}, Kind::Check, QStringLiteral("AutoLoad"),
           QStringLiteral("Is the current effective set shall prevail"));
    Control version = c(QStringLiteral("Check1"), 0, b, {8880, 1650, 1020, 255}, Kind::Check, QStringLiteral("Version"));
    version.checked = true;
    version.enabled = false;
    l << version;
    l << c(QStringLiteral("Check1"), 1, b, {8880, 1950, 1020, 255}, Kind::Check, QStringLiteral("KeepInF"),
           QStringLiteral("Keep factory Settings"));
    l << hidden(c(QStringLiteral("Check1"), 2, b, {8880, 2250, 1020, 255}, Kind::Check, QStringLiteral("CurrSet"),
                  QStringLiteral("已当期有效设置为准")));

    // C: the image strip; the mark is on top of the pictures.
    for (int i = 0; i < kMenuImgCount; ++i) {
        Control img = c(QStringLiteral("MenuImg"), i, s, MenuImgRect(i), Kind::Image, {}, kMenuImg[i].toolTip);
        img.enabled = i != 4;
        l << img;
    }
    l << c(QStringLiteral("Shape2"), -1, s, Shape2Rect(ImageStrip{}), Kind::Mark);

    // D: the two grids on one place, the settings grid in front.
    l << c(QStringLiteral("MSFG"), 1, form, {45, 3240, 12540, 6405}, Kind::Grid, {}, kMSFGToolTip[1]);
    l << c(QStringLiteral("MSFG"), 0, form, {45, 3240, 12540, 6405}, Kind::Grid, {}, kMSFGToolTip[0]);
    Control input = hidden(with(c(QStringLiteral("InPutTxt"), 0, form, {5880, 4200, 2000, 300}, Kind::Line), song105));
    input.centred = true;
    l << input;
    l << hidden(with(c(QStringLiteral("MSFGList"), -1, form, {5880, 4560, 2055, 3975}, Kind::List),
                     Font{true, 9, false}));

    // E and F: the project tree and the item notes.
    l << c(QStringLiteral("TreeView"), -1, form, {13500, 0, 5055, 6150}, Kind::Tree, {}, kTreeToolTip);
    l << c(QStringLiteral("Label1"), 0, form, {13500, 6195, 375, 1980}, Kind::BoxLabel, kNoteBoxes[1].label);
    l << c(QStringLiteral("NotesTxt"), 1, form, {13860, 6195, 4650, 1980}, Kind::Text, {}, kNoteBoxes[1].toolTip);
    const int tops[5] = {8160, 8450, 8730, 9020, 9300};
    for (int i = 0; i < 5; ++i) {
        l << c(QStringLiteral("Label1"), i + 1, form, {13500, tops[i], 855, 300}, Kind::BoxLabel,
               kNoteBoxes[i + 2].label);
        l << c(QStringLiteral("NotesTxt"), i + 2, form, {14340, tops[i], 4215, 300}, Kind::Line, {},
               kNoteBoxes[i + 2].toolTip);
    }
    l << c(QStringLiteral("Line1"), -1, form, {18540, 6120, 1, 8160 - 6120}, Kind::VLine);
    return w;
}

Window makeAboutForm()
{
    const QString form = QStringLiteral("frmAbout");
    Window w;
    w.caption = kAboutCaption;
    w.clientTwips = QSize(5730, 3225);
    QList<Control> &l = w.controls;
    l << c(QStringLiteral("Toolbar1"), -1, form, {0, 0, 5730, 690}, Kind::Frame);
    l << c(QStringLiteral("picIcon"), -1, form, {120, 240, 750, 690}, Kind::Image);
    l << with(c(QStringLiteral("lblTitle"), -1, form, {1050, 240, 1725, 480}, Kind::Label, kAboutTitle),
              Font{false, 14, true});
    l << c(QStringLiteral("lblVersion"), -1, form, {4680, 240, 810, 180}, Kind::Label, AboutVersionText());
    l << c(QStringLiteral("lblDescription"), -1, form, {1080, 1080, 3885, 210}, Kind::Label, kAboutDescription);
    l << c(QStringLiteral("Label1"), -1, form, {1440, 1440, 3975, 615}, Kind::Label, kAboutText);
    l << c(QStringLiteral("Line1"), 1, form, {90, 2445, 5654 - 90, 1}, Kind::HLine);
    l << c(QStringLiteral("lblDisclaimer"), -1, form, {255, 2520, 5310, 315}, Kind::Label, kAboutCompany);
    l << c(QStringLiteral("Label2"), -1, form, {270, 2760, 3735, 375}, Kind::Label, kAboutContact);
    l << c(QStringLiteral("cmdOK"), -1, form, {4200, 2760, 1500, 345}, Kind::Button, kAboutOk);
    return w;
}

} // namespace

const Window &aboutForm()
{
    static const Window w = makeAboutForm();
    return w;
}

const Window &viewForm()
{
    static const Window w = makeViewForm();
    return w;
}

const QList<MenuItem> &viewFormMenus()
{
    // visible = the design; visibleFull = the full view, where the File items
    // that have an action are shown. "View" is this program's own menu.
    static const QList<MenuItem> m = {
        {"file_menu", "", "File", true, true, true, {}, false},
        {"CreatNewPro", "file_menu", "新建工程", false, true, true, {}, false},
        {"OpenPro", "file_menu", "打开工程", false, true, true, {}, false},
        {"fdsfds", "file_menu", "-", false, true, true, {}, false},
        {"MCompFile", "file_menu", "合并文件", false, true, true, {}, false},
        {"SavePro", "file_menu", "保存程序", false, true, true, {}, false},
        {"SaveSet", "file_menu", "保存设置", false, false, true, {}, false},
        {"yhghg", "file_menu", "-", true, true, true, {}, false},
        {"EndPro", "file_menu", "Exit", true, true, true, {}, false},
        {"view_menu", "", "View", true, true, true, {}, false},
        {"FullView", "view_menu", "Full design", true, true, true, "F8", true},
        {"FastLine", "view_menu", "Fast line", true, true, true, {}, true},
        {"LineMonitor", "view_menu", "Line monitor", true, true, true, {}, false},
        {"LivePlots", "view_menu", "Live plots", true, true, true, {}, false},
        {"ChipHistory", "view_menu", "Chip history", true, true, true, {}, false},
        {"CompareSettings", "view_menu", "Compare settings", true, true, true, {}, false},
        {"Station", "view_menu", "Production station", true, true, true, {}, false},
        {"about_menu", "", "About", true, true, true, {}, false},
        {"AboutMe", "about_menu", "About Burning", true, true, true, {}, false},
        {"PeoHelp", "about_menu", "operation manual", true, true, true, {}, false},
        {"AboutTarvel", "about_menu", "About Tarvel Electronics", true, true, true, {}, false},
        // The popup of the tree; never on the menu bar.
        {"Medite", "", "编辑(&E)", false, false, true, {}, false},
        {"MAddRecord", "Medite", "添加目录", true, true, true, {}, false},
        {"Maddsub", "Medite", "添加子集", true, true, true, {}, false},
        {"Minsertback", "Medite", "插入节点", true, true, true, {}, false},
        {"Mdelect", "Medite", "删除节点", true, true, true, {}, false},
        {"fdsfs", "Medite", "-", true, true, true, {}, false},
        {"Mcopydata", "Medite", "复制数据", true, true, true, {}, false},
        {"MPaseteData", "Medite", "粘贴数据", true, true, false, {}, false},
        {"rrrrrrr", "Medite", "-", true, true, true, {}, false},
        {"MNodeCut", "Medite", "剪切节点", true, true, true, {}, false},
        {"MnodePast", "Medite", "插入剪切", true, true, true, {}, false},
        {"MDeleData", "Medite", "删除数据", false, false, true, {}, false},
    };
    return m;
}

const QList<Panel> &statusPanels()
{
    static const QList<Panel> p = {
        {4000, QStringLiteral("串口未打开"), QStringLiteral("串口未打开")},
        {5000, {}, {}},
        {10000, {}, {}},
    };
    return p;
}

} // namespace pyro::design
