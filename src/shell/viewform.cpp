#include "viewform.h"
#include "stationwindow.h"

#include "fonts.h"
#include "help.h"
#include "items.h"
#include "chiphistory.h"
#include "monitorwindow.h"
#include "pictures.h"
#include "plotwindow.h"
#include "comparewindow.h"
#include "portcontrol.h"
#include "twips.h"
#include "widgetprompter.h"

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QCloseEvent>
#include <QDesktopServices>
#include <QDialog>
#include <QComboBox>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QMenuBar>
#include <QMouseEvent>
#include <QPainter>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QScreen>
#include <QScrollBar>
#include <QStandardItemModel>
#include <QStyledItemDelegate>
#include <QShortcut>
#include <QTableView>
#include <QTextBlock>
#include <QTreeView>
#include <QVBoxLayout>
#include <QWheelEvent>
#include <utility>

namespace pyro {

namespace {

using design::Kind;

// Shape1: a filled round lamp.
class Lamp : public QWidget {
public:
    using QWidget::QWidget;
    QColor color = QColor(250, 0, 0);
    void setColor(const QColor &c)
    {
        if (c != color) {
            color = c;
            update();
        }
    }

protected:
    void paintEvent(QPaintEvent *) override
    {
        QPainter p(this);
        p.setRenderHint(QPainter::Antialiasing);
        p.setPen(QPen(QColor(60, 60, 60), 1));
        p.setBrush(color);
        p.drawEllipse(QRectF(rect()).adjusted(1, 1, -1, -1));
    }
};

// Shape2: a rectangle without fill over the strip's pictures.
class Mark : public QWidget {
public:
    explicit Mark(QWidget *parent) : QWidget(parent) { setAttribute(Qt::WA_TransparentForMouseEvents); }
    int border = 1;
    void setBorder(int b)
    {
        if (b != border) {
            border = b;
            update();
        }
    }

protected:
    void paintEvent(QPaintEvent *) override
    {
        QPainter p(this);
        p.setPen(QPen(Qt::black, border));
        p.setBrush(Qt::NoBrush);
        const int h = border / 2;
        p.drawRect(rect().adjusted(h, h, -border + h, -border + h));
    }
};

// A picture of the strip, stretched to its square. Drawn the same whether
// enabled or not: a button with nothing to do keeps its picture, where a
// label would grey it.
class Picture : public QWidget {
public:
    Picture(const QPixmap &pixmap, QWidget *parent) : QWidget(parent), m_pixmap(pixmap) {}
    const QPixmap &pixmap() const { return m_pixmap; }

protected:
    void paintEvent(QPaintEvent *) override
    {
        QPainter p(this);
        p.setRenderHint(QPainter::SmoothPixmapTransform);
        p.drawPixmap(rect(), m_pixmap);
    }

private:
    QPixmap m_pixmap;
};

// The client area: a quiet light wash behind the controls.
class Canvas : public QWidget {
public:
    using QWidget::QWidget;

protected:
    void paintEvent(QPaintEvent *) override
    {
        QPainter p(this);
        QLinearGradient g(0, 0, 0, height());
        g.setColorAt(0, QColor(238, 242, 247));
        g.setColorAt(1, QColor(222, 229, 238));
        p.fillRect(rect(), g);
    }
};

// The tree's in-place label editor hands the new text to the core, which
// writes the file and the node.
class TreeLabelDelegate : public QStyledItemDelegate {
public:
    using QStyledItemDelegate::QStyledItemDelegate;
    std::function<void()> begin;
    std::function<void(const QString &)> commit;

    QWidget *createEditor(QWidget *parent, const QStyleOptionViewItem &option,
                          const QModelIndex &index) const override
    {
        if (begin)
            begin();
        return QStyledItemDelegate::createEditor(parent, option, index);
    }
    void setModelData(QWidget *editor, QAbstractItemModel *, const QModelIndex &) const override
    {
        if (auto *line = qobject_cast<QLineEdit *>(editor); line && commit)
            commit(line->text());
    }
};

QFont designFont(const design::Font &f, const QFont &base)
{
    QFont font = base;
    if (f.song)
        font.setFamilies(songFamilies());
    if (f.points > 0)
        font.setPointSizeF(f.points);
    font.setBold(f.bold);
    return font;
}

void setText(QLabel *l, const QString &t)
{
    if (l && l->text() != t)
        l->setText(t);
}

void setText(QAbstractButton *b, const QString &t)
{
    if (b && b->text() != t)
        b->setText(t);
}

void enableIf(QWidget *w, bool on)
{
    if (w && w->isEnabled() != on)
        w->setEnabled(on);
}

} // namespace

ViewForm::ViewForm(const Options &options) : m_opt(options)
{
    if (!m_opt.prompter) {
        m_ownPrompter = std::make_unique<WidgetPrompter>(this, m_opt.appDir);
        m_opt.prompter = m_ownPrompter.get();
    }
    if (!m_opt.port) {
        m_ownPort = std::make_unique<QtSerialControl>();
        m_opt.port = m_ownPort.get();
    }
    link.appDir = m_opt.appDir;
    link.prompter = m_opt.prompter;
    AttachPort(link, m_opt.port);
    AttachBurn(link, burn);
    burn.params = &params;
    // Every chip burned in the window gets its line in the day's chip record.
    burn.chipLog.folder = RecordFolder();
    m_records = std::make_unique<ChipRecords>(burn, RecordFolder(), this, m_opt.appDir);
    InstallParamOps(link, params, ops);
    AttachDb(db, link);
    strip.saveItem = [this] { return MenuImg4Click(db, params, link); };
    // Modal from inside the tick's step: the tick's guard keeps the one reply
    // from being judged again while it is open.
    ops.showBitInfForm = [this](ParamOps &o) {
        std::unique_ptr<QDialog> form = makeBitInfForm(o.BitInf);
        form->exec();
    };

    if (QScreen *s = screen())
        m_dpi = s->logicalDotsPerInchX();
    setWindowTitle(design::viewForm().caption);
    setWindowIcon(appIcon());
    build();
    buildMenus();
    wireEvents();

    // The design enables MBTim: ticks run from the first moment.
    m_tick.setTimerType(Qt::PreciseTimer);
    m_tick.setInterval(15);
    connect(&m_tick, &QTimer::timeout, this, &ViewForm::tick);
    m_tick.start();

    // The load step.
    InitPortBoxes(link.view);
    link.MBResult = -1;
    LoadParamTables(params, m_opt.appDir, m_opt.prompter);
    link.view.frontGrid = 0;
    OpenStartupDb(db, m_opt.appDir);
    refresh();
    setFullView(false);
}

ViewForm::~ViewForm()
{
    m_tick.stop();
    // A window that goes without a close event leaves no chip unrecorded.
    ChipLogEnd(link, burn, QStringLiteral("window closed"));
    // The views go before the models they show.
    delete takeCentralWidget();
}

// --- building the design ---------------------------------------------------------

void ViewForm::build()
{
    const design::Window &w = design::viewForm();
    auto *central = new QWidget(this);
    auto *layout = new QVBoxLayout(central);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    m_viewport = new QWidget(central);
    m_viewport->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Ignored);
    layout->addWidget(m_viewport, 1);
    m_canvas = new Canvas(m_viewport);
    // The design's check boxes are narrow: the box sits close to its caption.
    m_canvas->setStyleSheet(QStringLiteral("QCheckBox { spacing: 2px; }"));
    m_canvas->setGeometry(QRect(QPoint(0, 0), twipsToPx(w.clientTwips, m_dpi)));

    QHash<QString, QWidget *> parents{{QStringLiteral("ViewForm"), m_canvas}};
    for (const design::Control &c : w.controls) {
        QWidget *parent = parents.value(c.parent, m_canvas);
        QWidget *widget = makeControl(c, parent);
        const QString id = design::controlId(c.name, c.index);
        widget->setObjectName(id);
        widget->setGeometry(twipsToPx(c.twips, m_dpi));
        if (c.font.song || c.font.points > 0 || c.font.bold)
            widget->setFont(designFont(c.font, widget->font()));
        if (!c.toolTip.isEmpty())
            widget->setToolTip(c.toolTip);
        widget->setEnabled(c.enabled);
        widget->setVisible(c.visible);
        m_controls.insert(id, widget);
        m_ids.insert(widget, id);
        // Regions C to F lie beyond the compact view: Tab must not reach them there.
        const bool inAB = c.parent == QLatin1String("Frame1") || c.parent == QLatin1String("Frame2")
            || c.name == QLatin1String("Frame1") || c.name == QLatin1String("Frame2");
        if (!inAB && widget->focusPolicy() != Qt::NoFocus)
            m_beyondCompact.append({widget, widget->focusPolicy()});
        m_toolTips.insert(id, c.toolTip);
        if (c.kind == Kind::Frame)
            parents.insert(c.name, widget);
    }

    // G: the status bar along the bottom edge; panel 3 runs past the window's edge.
    auto *bar = new QWidget(central);
    bar->setObjectName(QStringLiteral("SB"));
    bar->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Fixed);
    bar->setFixedHeight(twipsToPx(design::kStatusHeightTwips, m_dpi));
    int x = 0;
    for (int i = 0; i < 3; ++i) {
        const design::Panel &p = design::statusPanels()[i];
        auto *label = new QLabel(p.text, bar);
        label->setObjectName(QStringLiteral("SB.Panel%1").arg(i + 1));
        label->setFrameStyle(QFrame::Panel | QFrame::Sunken);
        label->setToolTip(p.toolTip);
        label->setIndent(3);
        const int width = twipsToPx(p.widthTwips, m_dpi);
        label->setGeometry(x, 0, width, bar->height());
        x += width;
        m_panels[i + 1] = label;
    }
    layout->addWidget(bar);
    setCentralWidget(central);
}

QWidget *ViewForm::makeControl(const design::Control &c, QWidget *parent)
{
    switch (c.kind) {
    case Kind::Frame: {
        auto *f = new QFrame(parent);
        f->setFrameStyle(QFrame::Box | QFrame::Sunken);
        return f;
    }
    case Kind::Label:
        return new QLabel(c.caption, parent);
    case Kind::BoxLabel: {
        auto *l = new QLabel(c.caption, parent);
        l->setFrameStyle(QFrame::Box | QFrame::Plain);
        l->setAttribute(Qt::WA_TranslucentBackground);
        l->setWordWrap(c.twips.width() < c.twips.height());
        l->setIndent(2);
        return l;
    }
    case Kind::Bar: {
        auto *l = new QLabel(parent);
        l->setAutoFillBackground(true);
        QPalette pal = l->palette();
        pal.setColor(QPalette::Window, QColor(0, 255, 0));
        l->setPalette(pal);
        return l;
    }
    case Kind::Combo: {
        auto *b = new QComboBox(parent);
        b->setEditable(true);
        b->setInsertPolicy(QComboBox::NoInsert);
        b->setMaxVisibleItems(12);
        return b;
    }
    case Kind::Button:
        return new QPushButton(c.caption, parent);
    case Kind::Lamp:
        return new Lamp(parent);
    case Kind::Check: {
        auto *b = new QCheckBox(c.caption, parent);
        b->setChecked(c.checked);
        return b;
    }
    case Kind::Line: {
        auto *e = new QLineEdit(parent);
        if (c.centred)
            e->setAlignment(Qt::AlignCenter);
        return e;
    }
    case Kind::Text: {
        auto *t = new QPlainTextEdit(parent);
        t->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOn);
        return t;
    }
    case Kind::Log: {
        auto *t = new QPlainTextEdit(parent);
        t->setReadOnly(true);
        // The pane only grows: no undo history to hold a second copy of it.
        t->setUndoRedoEnabled(false);
        t->setLineWrapMode(QPlainTextEdit::NoWrap);
        return t;
    }
    case Kind::Grid: {
        auto *g = new QTableView(parent);
        g->horizontalHeader()->hide();
        g->verticalHeader()->hide();
        g->setEditTriggers(QAbstractItemView::NoEditTriggers);
        g->setSelectionMode(QAbstractItemView::SingleSelection);
        g->setWordWrap(false);
        // The cells take their sizes from the table, their face from here.
        g->setFont(tableFont(g->font()));
        return g;
    }
    case Kind::List: {
        auto *g = new QTableView(parent);
        // The entries fill the list exactly: no frame, no scroll bars.
        g->setFrameShape(QFrame::NoFrame);
        g->setShowGrid(false);
        g->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
        g->setVerticalScrollBarPolicy(Qt::ScrollBarAsNeeded);
        g->horizontalHeader()->hide();
        g->verticalHeader()->hide();
        g->horizontalHeader()->setStretchLastSection(true);
        g->setEditTriggers(QAbstractItemView::NoEditTriggers);
        return g;
    }
    case Kind::Tree: {
        auto *t = new QTreeView(parent);
        t->setHeaderHidden(true);
        t->setEditTriggers(QAbstractItemView::SelectedClicked | QAbstractItemView::EditKeyPressed);
        return t;
    }
    case Kind::HLine: {
        auto *f = new QFrame(parent);
        f->setFrameStyle(QFrame::HLine | QFrame::Sunken);
        return f;
    }
    case Kind::Image: {
        if (c.index >= 0)
            return new Picture(stripPicture(c.index, twipsToPx(c.twips.width(), m_dpi)), parent);
        auto *l = new QLabel(parent);
        l->setPixmap(appIconPixmap(48));
        return l;
    }
    case Kind::Mark:
        return new Mark(parent);
    case Kind::VLine: {
        auto *l = new QWidget(parent);
        l->setAutoFillBackground(true);
        QPalette pal = l->palette();
        pal.setColor(QPalette::Window, QColor::fromRgb(design::kDividerRgb));
        l->setPalette(pal);
        return l;
    }
    }
    return new QWidget(parent);
}

void ViewForm::buildMenus()
{
    QHash<QString, QMenu *> menus;
    for (const design::MenuItem &m : design::viewFormMenus()) {
        if (m.parent.isEmpty()) {
            QMenu *menu = m.name == QLatin1String("Medite") ? new QMenu(m.caption, this)
                                                            : menuBar()->addMenu(m.caption);
            menu->setObjectName(m.name);
            // The design's separators stand where it puts them, even first in a
            // menu whose items above are hidden ("yhghg" above "Exit").
            menu->setSeparatorsCollapsible(false);
            menus.insert(m.name, menu);
            if (m.name == QLatin1String("Medite"))
                m_popup = menu;
            else
                m_actions.insert(m.name, menu->menuAction());
            continue;
        }
        QMenu *menu = menus.value(m.parent);
        QAction *a = m.caption == QLatin1String("-") ? menu->addSeparator() : menu->addAction(m.caption);
        a->setObjectName(m.name);
        a->setVisible(m.visible);
        a->setEnabled(m.enabled);
        a->setCheckable(m.checkable);
        if (!m.shortcut.isEmpty()) {
            a->setShortcut(QKeySequence(m.shortcut));
            // The window's own shortcut, whichever control has the focus.
            a->setShortcutContext(Qt::WindowShortcut);
            addAction(a);
        }
        m_actions.insert(m.name, a);
        if (!a->isSeparator()) {
            const QString name = m.name;
            connect(a, &QAction::triggered, this, [this, name] { runMenu(name); });
        }
    }
}

// --- events ----------------------------------------------------------------------

void ViewForm::wireEvents()
{
    auto button = [this](const QString &id) { return qobject_cast<QPushButton *>(control(id)); };
    auto after = [this](auto f) { return [this, f] { f(); refresh(); }; };
    connect(button("Command1"), &QPushButton::clicked, this,
            after([this] { AutoDetect(link, CandidatePorts(link.appDir)); }));
    connect(button("Command2"), &QPushButton::clicked, this, after([this] { Command2Click(link); }));
    connect(button("Command3"), &QPushButton::clicked, this, after([this] { Command3Click(link, burn); }));
    connect(button("Command4"), &QPushButton::clicked, this, after([this] { Command4Click(link, burn); }));

    for (int i = 0; i < 6; ++i) {
        auto *box = qobject_cast<QComboBox *>(control(design::controlId("ComboSet", i)));
        // A typed text and a pick from the list both count as a change.
        connect(box, &QComboBox::currentTextChanged, this, [this, i](const QString &text) {
            link.view.ComboSet[i].text = text;
            ComboSetChange(link, i);
            refresh();
        });
    }
    for (int i = 0; i < 4; ++i) {
        auto *box = qobject_cast<QCheckBox *>(control(design::controlId("Check1", i)));
        connect(box, &QCheckBox::toggled, this, [this, i](bool on) { link.view.Check1[i] = on; });
    }
    // The note boxes keep the view's text in step with what is typed or
    // pasted; the key up is the event that counts as a change of the item.
    for (int i = 0; i < 7; ++i) {
        QWidget *w = control(design::controlId("NotesTxt", i));
        if (auto *t = qobject_cast<QPlainTextEdit *>(w))
            connect(t, &QPlainTextEdit::textChanged, this, [this, i, t] { link.view.NotesTxt[i] = t->toPlainText(); });
        else if (auto *l = qobject_cast<QLineEdit *>(w))
            connect(l, &QLineEdit::textEdited, this, [this, i](const QString &s) { link.view.NotesTxt[i] = s; });
    }

    // The in-cell editors.
    m_listModel = new QStandardItemModel(this);
    auto *list = qobject_cast<QTableView *>(control("MSFGList"));
    list->setModel(m_listModel);
    connect(list, &QTableView::clicked, this, [this](const QModelIndex &i) {
        const UndoMark mark = UndoBegin(params, edit);
        MSFGListClick(edit, params, link.view, link.prompter, i.row());
        UndoCommit(undo, params, edit, mark);
        refresh();
    });

    for (int i = 0; i < 2; ++i) {
        auto *grid = qobject_cast<QTableView *>(control(design::controlId("MSFG", i)));
        grid->setModel(&params.MSFG[i]);
        GridModel *m = &params.MSFG[i];
        connect(m, &GridModel::modelReset, this, [this, i] { refreshGrid(i); });
        connect(m, &GridModel::layoutChanged, this, [this, i] { refreshGrid(i); });
        connect(m, &GridModel::headerDataChanged, this, [this, i] { refreshGrid(i); });
        connect(m, &GridModel::rowsInserted, this, [this, i] { refreshGrid(i); });
        refreshGrid(i);
        connect(grid, &QTableView::pressed, this, [this, i](const QModelIndex &at) {
            m_afterDblClick = false;
            params.MSFG[i].setCurrentCell(at.row(), at.column());
        });
        connect(grid, &QTableView::clicked, this, [this](const QModelIndex &) {
            // The release that ends a double click is no click of its own.
            if (std::exchange(m_afterDblClick, false))
                return;
            MSFGClick(edit);
            refresh();
        });
        connect(grid, &QTableView::doubleClicked, this, [this, i](const QModelIndex &at) {
            m_afterDblClick = true;
            gridDoubleClick(i, at);
        });
        for (QScrollBar *bar : {grid->verticalScrollBar(), grid->horizontalScrollBar()}) {
            connect(bar, &QScrollBar::valueChanged, this, [this] {
                MSFGScroll(edit);
                refresh();
            });
        }
    }

    // Undo and redo of the edits typed into the settings grid.
    for (const auto &[keys, redo] : {std::pair{"Ctrl+Z", false}, std::pair{"Ctrl+Y", true}}) {
        auto *sc = new QShortcut(QKeySequence(QString::fromLatin1(keys)), control("MSFG(0)"), [this, redo = redo] {
            redo ? Redo(undo, params, link.view, edit) : Undo(undo, params, link.view, edit);
            refresh();
        });
        sc->setContext(Qt::WidgetWithChildrenShortcut);
    }

    auto *tree = qobject_cast<QTreeView *>(control("TreeView"));
    tree->setModel(db.tree.model.get());
    auto *delegate = new TreeLabelDelegate(tree);
    delegate->begin = [this] { BeginRename(db); };
    delegate->commit = [this](const QString &text) {
        RenameNode(db, text);
        refresh();
    };
    tree->setItemDelegate(delegate);
    connect(tree->selectionModel(), &QItemSelectionModel::currentChanged, this,
            [this](const QModelIndex &current) {
                if (m_syncingTree)
                    return;
                db.tree.Selected = current.data(kKeyRole).toString();
                m_treeSelected = db.tree.Selected;
            });
    connect(tree, &QTreeView::clicked, this, [this](const QModelIndex &at) {
        if (TreeNodeClick(db, params, link, at.data(kKeyRole).toString()) == 0)
            setFocusTo(control("MSFG(0)"));
        refresh();
    });
    connect(tree, &QTreeView::expanded, this, [this](const QModelIndex &i) {
        if (!m_syncingTree)
            SetExpanded(db, i.data(kKeyRole).toString(), true);
    });
    connect(tree, &QTreeView::collapsed, this, [this](const QModelIndex &i) {
        if (!m_syncingTree)
            SetExpanded(db, i.data(kKeyRole).toString(), false);
    });
    QStandardItemModel *model = db.tree.model.get();
    connect(model, &QStandardItemModel::rowsInserted, this,
            [this](const QModelIndex &parent) { applyTreeExpansion(parent); });
    connect(model, &QStandardItemModel::modelReset, this, [this] { applyTreeExpansion({}); });

    // Mouse hints, the tree's popup and the strip's presses come through one filter.
    for (auto it = m_controls.cbegin(); it != m_controls.cend(); ++it) {
        QWidget *w = it.value();
        w->installEventFilter(this);
        w->setMouseTracking(true);
        if (auto *area = qobject_cast<QAbstractScrollArea *>(w)) {
            area->viewport()->installEventFilter(this);
            area->viewport()->setMouseTracking(true);
            m_ids.insert(area->viewport(), it.key());
        }
    }
}

void ViewForm::runMenu(const QString &name)
{
    if (name == QLatin1String("EndPro")) {
        endPro();
        return;
    }
    if (name == QLatin1String("FullView"))
        setFullView(menuAction(name)->isChecked());
    else if (name == QLatin1String("FastLine"))
        link.fastLine = menuAction(name)->isChecked();
    else if (name == QLatin1String("LineMonitor") || name == QLatin1String("LivePlots")
             || name == QLatin1String("ChipHistory") || name == QLatin1String("CompareSettings")
             || name == QLatin1String("Station")) {
        QWidget *w = name == QLatin1String("LineMonitor") ? static_cast<QWidget *>(&lineMonitor())
                   : name == QLatin1String("LivePlots")   ? static_cast<QWidget *>(&livePlots())
                   : name == QLatin1String("ChipHistory") ? static_cast<QWidget *>(&chipHistory())
                   : name == QLatin1String("Station")     ? static_cast<QWidget *>(&stationWindow())
                                                          : static_cast<QWidget *>(&compareSettings());
        w->show();
        w->raise();
        w->activateWindow();
    }
    else if (name == QLatin1String("CreatNewPro"))
        CreatNewPro(db);
    else if (name == QLatin1String("OpenPro"))
        OpenPro(db);
    else if (name == QLatin1String("MAddRecord"))
        AddTopLevel(db);
    else if (name == QLatin1String("Maddsub"))
        AddChild(db);
    else if (name == QLatin1String("Minsertback"))
        InsertBefore(db);
    else if (name == QLatin1String("Mdelect"))
        DeleteNode(db);
    else if (name == QLatin1String("MNodeCut"))
        MarkCutNode(db);
    else if (name == QLatin1String("MnodePast"))
        PasteCutNode(db);
    else if (name == QLatin1String("Mcopydata"))
        Mcopydata(db, params);
    else if (name == QLatin1String("MPaseteData")) {
        if (MPaseteData(db, params, link) == 0)
            setFocusTo(control("MSFG(0)"));
    } else if (name == QLatin1String("MCompFile"))
        MCompFile(link);
    else if (name == QLatin1String("SavePro"))
        SavePro(link, burn);
    else if (name == QLatin1String("AboutMe"))
        makeAbout()->exec();
    else if (name == QLatin1String("PeoHelp"))
        PeoHelp(link.appDir, link.prompter, [](const QUrl &u) { return QDesktopServices::openUrl(u); });
    else if (name == QLatin1String("AboutTarvel"))
        AboutTarvel([](const QUrl &u) { return QDesktopServices::openUrl(u); });
    refresh();
}

bool ViewForm::eventFilter(QObject *watched, QEvent *e)
{
    const QString id = m_ids.value(watched);
    if (id.isEmpty())
        return QMainWindow::eventFilter(watched, e);
    auto indexOf = [&](const char *array) {
        const QString head = QLatin1String(array) + QLatin1Char('(');
        return id.startsWith(head) ? id.mid(head.size()).chopped(1).toInt() : -1;
    };
    const int note = indexOf("NotesTxt"), grid = indexOf("MSFG"), image = indexOf("MenuImg");
    // A disabled control takes no mouse: no hint, no mark, no action. Qt shows
    // its mouse events to the filter all the same.
    switch (e->type()) {
    case QEvent::MouseMove:
    case QEvent::MouseButtonPress:
    case QEvent::MouseButtonRelease:
    case QEvent::MouseButtonDblClick:
        if (QWidget *w = control(id); w && !w->isEnabled())
            return QMainWindow::eventFilter(watched, e);
        break;
    default:
        break;
    }
    bool eaten = false;
    switch (e->type()) {
    case QEvent::MouseMove:
        if (id == QLatin1String("Command1") || id == QLatin1String("Command3") || indexOf("Check1") >= 0)
            MouseHint(link.view, m_toolTips.value(id));
        else if (note >= 0)
            NotesTxtMouseMove(link.view, note);
        else if (grid >= 0)
            MSFGMouseMove(link.view, grid);
        else if (id == QLatin1String("TreeView")) {
            MouseHint(link.view, m_toolTips.value(id));
            TreeViewMouseMove(edit);
        } else if (image >= 0)
            MenuImgMouseMove(strip, link.view, image);
        else
            return QMainWindow::eventFilter(watched, e);
        refresh();
        break;
    case QEvent::MouseButtonPress:
        if (image >= 0) {
            MenuImgMouseDown(strip, link.view, image);
            refresh();
        }
        break;
    case QEvent::MouseButtonRelease: {
        auto *me = static_cast<QMouseEvent *>(e);
        if (id == QLatin1String("TreeView") && me->button() == Qt::RightButton) {
            if (TreeMouseUp(db))
                showPopup(me->globalPosition().toPoint());
            refresh();
        } else if (image >= 0) {
            // The release counts wherever the pointer is now.
            MenuImgMouseUp(strip, ops, image);
            refresh();
        }
        break;
    }
    case QEvent::MouseButtonDblClick:
        if (note >= 0) {
            NotesTxtDblClick(link, note);
            refresh();
        }
        break;
    case QEvent::KeyRelease:
        // Only a key pressed in the box counts: the release of F8 or of a key
        // pressed in another window is no change of the item.
        if (note >= 0 && m_noteKeys.remove({note, static_cast<QKeyEvent *>(e)->key()})) {
            QWidget *w = control(id);
            const QString text = qobject_cast<QPlainTextEdit *>(w) ? qobject_cast<QPlainTextEdit *>(w)->toPlainText()
                                                                   : qobject_cast<QLineEdit *>(w)->text();
            NotesTxtKeyUp(link.view, note, text);
            refresh();
        }
        break;
    case QEvent::KeyPress:
        if (note >= 0)
            m_noteKeys.insert({note, static_cast<QKeyEvent *>(e)->key()});
        if (id == QLatin1String("InPutTxt(0)")) {
            auto *ke = static_cast<QKeyEvent *>(e);
            int ascii = -1;
            if (ke->key() == Qt::Key_Return || ke->key() == Qt::Key_Enter)
                ascii = 13;
            else if (ke->key() == Qt::Key_Backspace)
                ascii = 8;
            else if (!ke->text().isEmpty())
                ascii = ke->text().at(0).unicode();
            if (ascii >= 0) {
                auto *box = qobject_cast<QLineEdit *>(control(id));
                const UndoMark mark = UndoBegin(params, edit);
                eaten = !InPutTxtKeyPress(edit, params, link.view, link.prompter, ascii, box->text());
                UndoCommit(undo, params, edit, mark);
                refresh();
            }
        }
        break;
    case QEvent::Wheel:
        // The grids' own wheel is off: one notch on the settings grid with
        // the focus pages it, everything else does nothing.
        if (grid >= 0) {
            auto *we = static_cast<QWheelEvent *>(e);
            QWidget *g = control(id);
            const WheelAction act = MSFGWheel(grid, g->hasFocus(), we->angleDelta().y(), we->modifiers(), we->buttons());
            if (act != WheelAction::None) {
                const int key = act == WheelAction::PageUp ? Qt::Key_PageUp : Qt::Key_PageDown;
                QCoreApplication::postEvent(g, new QKeyEvent(QEvent::KeyPress, key, Qt::NoModifier));
                QCoreApplication::postEvent(g, new QKeyEvent(QEvent::KeyRelease, key, Qt::NoModifier));
            }
            eaten = true;
        }
        break;
    default:
        break;
    }
    return eaten || QMainWindow::eventFilter(watched, e);
}

void ViewForm::gridDoubleClick(int i, const QModelIndex &at)
{
    auto *grid = qobject_cast<QTableView *>(control(design::controlId("MSFG", i)));
    params.MSFG[i].setCurrentCell(at.row(), at.column());
    CellPlace place;
    const QRect g = grid->geometry();
    place.grid = QRect(pxToTwips(g.x(), m_dpi), pxToTwips(g.y(), m_dpi), pxToTwips(g.width(), m_dpi),
                       pxToTwips(g.height(), m_dpi));
    const QRect c = grid->visualRect(at).translated(grid->viewport()->geometry().topLeft());
    place.cell = QRect(pxToTwips(c.x(), m_dpi), pxToTwips(c.y(), m_dpi), pxToTwips(c.width(), m_dpi),
                       pxToTwips(c.height(), m_dpi));
    MSFGDblClick(edit, params, i, place);
    refresh();
}

void ViewForm::setFocusTo(QWidget *w)
{
    if (w && w->isEnabled())
        w->setFocus(Qt::OtherFocusReason);
}

void ViewForm::showPopup(const QPoint &globalPos)
{
    const MediteMenu &m = db.Medite;
    const std::pair<const char *, const MenuItemState *> items[] = {
        {"MAddRecord", &m.MAddRecord}, {"Maddsub", &m.Maddsub}, {"Minsertback", &m.Minsertback},
        {"Mdelect", &m.Mdelect}, {"Mcopydata", &m.Mcopydata}, {"MPaseteData", &m.MPaseteData},
        {"MNodeCut", &m.MNodeCut}, {"MnodePast", &m.MnodePast}, {"MDeleData", &m.MDeleData}};
    for (const auto &[name, state] : items) {
        QAction *a = menuAction(QString::fromLatin1(name));
        a->setEnabled(state->enabled);
        a->setVisible(state->visible);
    }
    // Not exec(): the popup must not run a loop of its own under the tick.
    m_popup->popup(globalPos);
}

void ViewForm::tick()
{
    MBTimTimer(link);
    refresh();
}

// --- showing the view state ------------------------------------------------------------

void ViewForm::refresh()
{
    const View &v = link.view;
    for (int i = 1; i <= 3; ++i)
        setText(m_panels[i], v.SB[i]);
    auto *c2 = qobject_cast<QPushButton *>(control("Command2"));
    setText(c2, v.Command2Caption);
    static_cast<Lamp *>(control("Shape1"))->setColor(QColor::fromRgb(v.Shape1));
    enableIf(control("Command3"), v.Command3Enabled);
    auto *c4 = qobject_cast<QPushButton *>(control("Command4"));
    enableIf(c4, v.Command4Enabled);
    setText(c4, v.Command4Caption);

    for (int i = 0; i < 6; ++i) {
        auto *box = qobject_cast<QComboBox *>(control(design::controlId("ComboSet", i)));
        const ComboBox &want = v.ComboSet[i];
        QStringList have;
        for (int k = 0; k < box->count(); ++k)
            have << box->itemText(k);
        if (have == want.list && box->currentText() == want.text)
            continue;
        const QSignalBlocker block(box);
        if (have != want.list) {
            box->clear();
            box->addItems(want.list);
        }
        const int at = want.list.indexOf(want.text);
        if (at >= 0)
            box->setCurrentIndex(at);
        box->setEditText(want.text);
    }
    for (int i = 0; i < 4; ++i) {
        auto *box = qobject_cast<QCheckBox *>(control(design::controlId("Check1", i)));
        if (box->isChecked() != v.Check1[i]) {
            const QSignalBlocker block(box);
            box->setChecked(v.Check1[i]);
        }
    }
    for (int i = 0; i < 7; ++i) {
        QWidget *w = control(design::controlId("NotesTxt", i));
        if (auto *t = qobject_cast<QPlainTextEdit *>(w); t && t->toPlainText() != v.NotesTxt[i]) {
            const QSignalBlocker block(t);
            t->setPlainText(v.NotesTxt[i]);
        } else if (auto *l = qobject_cast<QLineEdit *>(w); l && l->text() != v.NotesTxt[i]) {
            l->setText(v.NotesTxt[i]);
        }
    }
    for (int i = 0; i < 7; ++i)
        enableIf(control(design::controlId("MenuImg", i)), v.MenuImgEnabled[i]);

    // The strip: the path over its bar.
    auto *inf = qobject_cast<QLabel *>(control("InfLab"));
    setText(inf, v.InfLab);
    QWidget *bar = control("PersLab");
    const QRect barRect = twipsToPx(QRect(1335, 255, std::max(1, v.PersLabWidth), 270), m_dpi);
    if (bar->geometry() != barRect)
        bar->setGeometry(barRect);
    if (bar->isVisible() != v.PersLabVisible) {
        bar->setVisible(v.PersLabVisible);
        bar->lower();
    }

    // The log pane: only the new tail, so a long day costs the same per line.
    if (v.RTB.size() < m_logShown)
        m_logShown = 0;
    if (v.RTB.size() > m_logShown) {
        auto *log = qobject_cast<QPlainTextEdit *>(control("RTB"));
        QString tail = v.RTB.mid(m_logShown);
        m_logShown = v.RTB.size();
        if (tail.endsWith(QLatin1String("\r\n")))
            tail.chop(2);
        tail.replace(QLatin1String("\r\n"), QLatin1String("\n"));
        log->appendPlainText(tail);
        log->verticalScrollBar()->setValue(log->verticalScrollBar()->maximum());
    }

    // The strip's mark.
    auto *mark = control("Shape2");
    const QRect markRect = twipsToPx(Shape2Rect(strip), m_dpi);
    if (mark->geometry() != markRect)
        mark->setGeometry(markRect);
    static_cast<Mark *>(mark)->setBorder(strip.Shape2BorderWidth);
    if (mark->isVisible() != strip.Shape2Visible)
        mark->setVisible(strip.Shape2Visible);
    refreshEditors();
    if (m_programFocus != v.Command4Focus) {
        m_programFocus = v.Command4Focus;
        setFocusTo(control("Command4"));
    }

    if (m_front != link.view.frontGrid) {
        m_front = link.view.frontGrid;
        control(design::controlId("MSFG", m_front == 1 ? 1 : 0))->raise();
        control("InPutTxt(0)")->raise();
        control("MSFGList")->raise();
    }
    refreshTree();
}

void ViewForm::refreshEditors()
{
    auto *box = qobject_cast<QLineEdit *>(control("InPutTxt(0)"));
    const InPutTxtView &b = edit.InPutTxt;
    const QRect boxRect = twipsToPx(b.rect, m_dpi);
    if (box->geometry() != boxRect)
        box->setGeometry(boxRect);
    if (b.visible && !box->isVisible())
        box->setText(b.text);
    QPalette pal = box->palette();
    if (pal.color(QPalette::Base) != QColor::fromRgb(b.back)) {
        pal.setColor(QPalette::Base, QColor::fromRgb(b.back));
        box->setPalette(pal);
    }
    if (box->isVisible() != b.visible) {
        box->setVisible(b.visible);
        box->raise();
    }

    auto *list = qobject_cast<QTableView *>(control("MSFGList"));
    const MSFGListView &l = edit.MSFGList;
    QStringList have;
    for (int r = 0; r < m_listModel->rowCount(); ++r)
        have << m_listModel->item(r)->text();
    if (have != l.items) {
        m_listModel->clear();
        for (const QString &t : l.items) {
            auto *item = new QStandardItem(t);
            item->setTextAlignment(Qt::AlignVCenter | Qt::AlignLeft);
            m_listModel->appendRow(item);
        }
    }
    const QRect listRect = twipsToPx(l.rect, m_dpi);
    if (list->geometry() != listRect)
        list->setGeometry(listRect);
    for (int r = 0; r < m_listModel->rowCount(); ++r)
        list->setRowHeight(r, std::max(1, twipsToPx(l.rowHeight, m_dpi)));
    pal = list->palette();
    if (pal.color(QPalette::Base) != QColor::fromRgb(l.back)) {
        pal.setColor(QPalette::Base, QColor::fromRgb(l.back));
        list->setPalette(pal);
    }
    if (l.visible && l.selected >= 0 && l.selected < m_listModel->rowCount())
        list->setCurrentIndex(m_listModel->index(l.selected, 0));
    if (list->isVisible() != l.visible) {
        list->setVisible(l.visible);
        list->raise();
    }

    if (m_editFocus != edit.focusSerial) {
        m_editFocus = edit.focusSerial;
        if (edit.focus == EditFocus::InPutTxt) {
            setFocusTo(box);
            box->selectAll();
        } else if (edit.focus == EditFocus::Grid) {
            setFocusTo(control("MSFG(0)"));
        }
    }
}

int ViewForm::logBlocks() const
{
    auto *log = qobject_cast<QPlainTextEdit *>(control("RTB"));
    const int n = log->document()->blockCount();
    return log->document()->isEmpty() ? 0 : n;
}

void ViewForm::refreshGrid(int i)
{
    auto *grid = qobject_cast<QTableView *>(control(design::controlId("MSFG", i)));
    const GridModel &m = params.MSFG[i];
    for (int c = 0; c < m.cols(); ++c) {
        const int w = twipsToPx(m.colWidth(c), m_dpi);
        if (grid->columnWidth(c) != w)
            grid->setColumnWidth(c, w);
    }
    for (int r = 0; r < m.rows(); ++r) {
        const int h = std::max(1, twipsToPx(m.rowHeight(r), m_dpi));
        if (grid->rowHeight(r) != h)
            grid->setRowHeight(r, h);
    }
}

void ViewForm::refreshTree()
{
    if (db.tree.Selected == m_treeSelected)
        return;
    m_treeSelected = db.tree.Selected;
    auto *tree = qobject_cast<QTreeView *>(control("TreeView"));
    QStandardItem *node = m_treeSelected.isEmpty() ? nullptr : FindNode(db.tree, m_treeSelected);
    m_syncingTree = true;
    if (node)
        tree->setCurrentIndex(node->index());
    else
        tree->setCurrentIndex({});
    m_syncingTree = false;
}

void ViewForm::applyTreeExpansion(const QModelIndex &parent)
{
    // The file's expanded flags drive the view; showing them writes nothing.
    auto *tree = qobject_cast<QTreeView *>(control("TreeView"));
    QStandardItemModel *model = db.tree.model.get();
    m_syncingTree = true;
    std::function<void(const QModelIndex &)> walk = [&](const QModelIndex &p) {
        for (int r = 0; r < model->rowCount(p); ++r) {
            const QModelIndex i = model->index(r, 0, p);
            const bool open = i.data(kExpandedRole).toBool();
            if (tree->isExpanded(i) != open)
                tree->setExpanded(i, open);
            walk(i);
        }
    };
    walk(parent);
    m_syncingTree = false;
    m_treeSelected = QStringLiteral("\x01");   // select again after the change
}

// --- size and the two views ---------------------------------------------------------

QSize ViewForm::fixedOuterSize() const
{
    const design::Window &w = design::viewForm();
    if (!m_full)
        return twipsToPx(w.outerTwips, m_dpi);
    const QSize frame = frameGeometry().size() - geometry().size();
    return twipsToPx(w.clientTwips, m_dpi) + QSize(0, menuBar()->sizeHint().height()) + frame;
}

void ViewForm::setFullView(bool full)
{
    m_full = full;
    for (const auto &[w, policy] : std::as_const(m_beyondCompact)) {
        if (w->hasFocus() && !full)
            control("ComboSet(0)")->setFocus(Qt::OtherFocusReason);
        w->setFocusPolicy(full ? policy : Qt::NoFocus);
    }
    for (const design::MenuItem &m : design::viewFormMenus()) {
        if (m.parent == QLatin1String("file_menu"))
            menuAction(m.name)->setVisible(full ? m.visibleFull : m.visible);
    }
    if (QAction *a = menuAction("FullView"); a->isChecked() != full) {
        const QSignalBlocker block(a);
        a->setChecked(full);
    }
    snapBack();
    // The larger view moves up and left as far as it needs to stay on the screen.
    if (QScreen *s = screen(); s && isVisible()) {
        const QRect room = s->availableGeometry();
        QRect frame = frameGeometry();
        frame.moveRight(std::min(frame.right(), room.right()));
        frame.moveBottom(std::min(frame.bottom(), room.bottom()));
        frame.moveLeft(std::max(frame.left(), room.left()));
        frame.moveTop(std::max(frame.top(), room.top()));
        if (frame.topLeft() != frameGeometry().topLeft())
            move(frame.topLeft());
    }
}

void ViewForm::snapBack()
{
    if (isMinimized() || m_snapping)
        return;
    const QSize frame = frameGeometry().size() - geometry().size();
    const QSize target = fixedOuterSize() - frame;
    if (size() == target)
        return;
    m_snapping = true;
    resize(target);   // resize keeps the top left corner where it is
    m_snapping = false;
}

// Under a window manager the frame is known only once it has taken the
// window: the first show and the moves that follow bring the outer size back.
void ViewForm::showEvent(QShowEvent *e)
{
    QMainWindow::showEvent(e);
    snapBack();
    // The frame's extents come whenever the window manager sets them, and
    // nothing tells the window: look again a few times while it settles.
    for (int ms : {50, 200, 600, 1500})
        QTimer::singleShot(ms, this, [this] {
            if (!isMaximized() && !isFullScreen())
                snapBack();
        });
}

void ViewForm::moveEvent(QMoveEvent *e)
{
    QMainWindow::moveEvent(e);
    if (!isMaximized() && !isFullScreen())
        snapBack();
}

void ViewForm::resizeEvent(QResizeEvent *e)
{
    QMainWindow::resizeEvent(e);
    if (!isMaximized() && !isFullScreen())
        snapBack();
}

void ViewForm::changeEvent(QEvent *e)
{
    QMainWindow::changeEvent(e);
    if (e->type() != QEvent::WindowStateChange)
        return;
    // A maximise comes back to the fixed size; it never ends the run.
    if (isMaximized() || isFullScreen()) {
        QTimer::singleShot(0, this, [this] {
            setWindowState(windowState() & ~(Qt::WindowMaximized | Qt::WindowFullScreen));
            snapBack();
        });
    } else if (!isMinimized()) {
        QTimer::singleShot(0, this, [this] { snapBack(); });
    }
}

// --- the end of a run ---------------------------------------------------------------

void ViewForm::closeEvent(QCloseEvent *e)
{
    // The close box: the log pane goes to the day's record first. Nothing asks.
    // A chip cut short by the close gets its line either way.
    ChipLogEnd(link, burn, QStringLiteral("window closed"));
    if (!m_ending)
        WriteBurnRecord(link);
    m_tick.stop();
    e->accept();
}

std::unique_ptr<QDialog> ViewForm::makeAbout()
{
    const design::Window &w = design::aboutForm();
    auto dialog = std::make_unique<QDialog>(this, Qt::Dialog | Qt::MSWindowsFixedSizeDialogHint);
    dialog->setWindowTitle(w.caption);
    dialog->setFixedSize(twipsToPx(w.clientTwips, m_dpi));
    for (const design::Control &c : w.controls) {
        QWidget *widget = makeControl(c, dialog.get());
        widget->setObjectName(c.name);
        widget->setGeometry(twipsToPx(c.twips, m_dpi));
        if (c.font.points > 0 || c.font.bold)
            widget->setFont(designFont(c.font, widget->font()));
        // Lines the design gives one line to stay on it; the description wraps.
        if (auto *label = qobject_cast<QLabel *>(widget))
            label->setWordWrap(c.twips.height() > 400);
        if (auto *ok = qobject_cast<QPushButton *>(widget)) {
            // OK takes Enter as the default button and Escape as the cancel.
            ok->setDefault(true);
            connect(ok, &QPushButton::clicked, dialog.get(), &QDialog::accept);
        }
    }
    return dialog;
}

std::unique_ptr<QDialog> ViewForm::makeBitInfForm(const BitInfRec &rec)
{
    auto dialog = std::make_unique<QDialog>(this, Qt::Dialog | Qt::MSWindowsFixedSizeDialogHint);
    dialog->setWindowTitle(kBitInfFormCaption);
    dialog->setFixedSize(twipsToPx(kBitInfFormClient, m_dpi));
    auto state = std::make_shared<BitInfFormState>(BitInfFormLoad(rec));
    QList<QWidget *> tabOrder(kBitInfFormLayout.size(), nullptr);
    for (const FormControl &c : kBitInfFormLayout) {
        QWidget *widget = nullptr;
        switch (c.kind) {
        case FormControlKind::Label:
            widget = new QLabel(c.caption, dialog.get());
            break;
        case FormControlKind::TextBox: {
            auto *box = new QLineEdit(state->Text1[c.index], dialog.get());
            box->setReadOnly(c.readOnly);
            const int i = c.index;
            connect(box, &QLineEdit::textChanged, dialog.get(), [state, box, i](const QString &text) {
                if (Text1Change(*state, i, text) && box->text() != state->Text1[i])
                    box->setText(state->Text1[i]);
            });
            widget = box;
            break;
        }
        case FormControlKind::Line: {
            auto *line = new QFrame(dialog.get());
            line->setFrameStyle(QFrame::HLine | QFrame::Sunken);
            widget = line;
            break;
        }
        case FormControlKind::Button: {
            auto *button = new QPushButton(c.caption, dialog.get());
            button->setDefault(true);
            connect(button, &QPushButton::clicked, dialog.get(), &QDialog::accept);
            widget = button;
            break;
        }
        }
        widget->setObjectName(design::controlId(QString::fromLatin1(c.name), c.index));
        QRect r = c.rect;
        if (c.kind == FormControlKind::Line)
            r.setHeight(30);
        widget->setGeometry(twipsToPx(r, m_dpi));
        widget->setEnabled(c.enabled);
        if (c.tabIndex >= 0 && c.tabIndex < tabOrder.size())
            tabOrder[c.tabIndex] = widget;
    }
    QWidget *previous = nullptr;
    for (QWidget *w : tabOrder) {
        if (!w)
            continue;
        if (previous)
            QWidget::setTabOrder(previous, w);
        previous = w;
    }
    if (tabOrder.value(0))
        tabOrder[0]->setFocus();
    return dialog;
}

void ViewForm::endPro()
{
    // "Exit" ends at once: no record, no question, nothing finished.
    m_ending = true;
    m_tick.stop();
    ChipLogEnd(link, burn, QStringLiteral("window closed"));
    close();
    QCoreApplication::exit(0);
}

// --- the line monitor and the live plots ------------------------------------------

MonitorWindow &ViewForm::lineMonitor()
{
    if (!m_monitor) {
        m_monitor = std::make_unique<MonitorWindow>(link, m_opt.prompter);
        // Left open, it must not keep the program running.
        m_monitor->setAttribute(Qt::WA_QuitOnClose, false);
    }
    return *m_monitor;
}

StationWindow &ViewForm::stationWindow()
{
    if (!m_station) {
        m_station = std::make_unique<StationWindow>(m_opt.prompter);
        m_station->setAttribute(Qt::WA_QuitOnClose, false);
        m_station->station.appDir = link.appDir;
        m_station->station.portsInUse = [this] {
            return link.MBMC && link.MBMC->isOpen() ? QStringList{link.view.ComboSet[0].text} : QStringList();
        };
    }
    return *m_station;
}

PlotWindow &ViewForm::livePlots()
{
    if (!m_plots) {
        m_plots = std::make_unique<PlotWindow>(ops, m_opt.prompter);
        m_plots->setAttribute(Qt::WA_QuitOnClose, false);
    }
    return *m_plots;
}

ChipHistoryWindow &ViewForm::chipHistory()
{
    if (!m_history) {
        m_history = std::make_unique<ChipHistoryWindow>(*m_records, m_opt.prompter);
        m_history->setAttribute(Qt::WA_QuitOnClose, false);
    }
    return *m_history;
}

CompareWindow &ViewForm::compareSettings()
{
    if (!m_compare) {
        m_compare = std::make_unique<CompareWindow>(link, params, db, m_opt.prompter);
        m_compare->setAttribute(Qt::WA_QuitOnClose, false);
    }
    return *m_compare;
}

} // namespace pyro
