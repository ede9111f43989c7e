// Builds the operator's manual, Pyrolink_UG.PDF, from its Markdown source with
// Qt's own text layout and PDF writer, so the build needs no other tool.
// Screenshots that the source names but that aren't there yet are left out.
// "@VERSION@" in the source becomes the build's version.
//
//   pyrolink-mkmanual SOURCE.md OUTPUT.PDF [VERSION]
#include <QFile>
#include <QFileInfo>
#include <QFontDatabase>
#include <QGuiApplication>
#include <QHash>
#include <QImage>
#include <QPageLayout>
#include <QPdfWriter>
#include <QRegularExpression>
#include <QTextBlock>
#include <QTextCursor>
#include <QTextDocument>
#include <QTextFrame>
#include <QTextTable>
#include <QTextStream>

namespace {

QTextStream err(stderr);

// Latin text in a sans face; CJK falls through to a face that has it.
const QStringList kBodyFamilies{"DejaVu Sans", "WenQuanYi Micro Hei", "Noto Sans CJK SC"};
constexpr double kBodyPoints = 9.5;
constexpr int kDpi = 300;

// Drops image references whose file is missing and collects the others.
QString takeImages(const QString &source, const QString &baseDir, QHash<QString, QImage> &images)
{
    static const QRegularExpression image(QStringLiteral(R"(!\[([^\]]*)\]\(([^)\s]+)\))"));
    QString out;
    qsizetype at = 0;
    for (auto it = image.globalMatch(source); it.hasNext();) {
        const auto m = it.next();
        out += source.mid(at, m.capturedStart() - at);
        at = m.capturedEnd();
        const QString name = m.captured(2);
        const QImage img(QFileInfo(baseDir + '/' + name).absoluteFilePath());
        if (img.isNull())
            continue;
        images.insert(name, img);
        out += m.captured(0);
    }
    return out + source.mid(at);
}

// Pictures wider than the text shrink to its width, keeping their shape.
void fitImages(QTextDocument &doc, qreal width)
{
    for (QTextBlock b = doc.begin(); b.isValid(); b = b.next()) {
        for (auto f = b.begin(); !f.atEnd(); ++f) {
            const QTextFragment frag = f.fragment();
            if (!frag.charFormat().isImageFormat())
                continue;
            QTextImageFormat fmt = frag.charFormat().toImageFormat();
            const QImage img = doc.resource(QTextDocument::ImageResource, QUrl(fmt.name())).value<QImage>();
            if (img.isNull())
                continue;
            // Screenshots shown at about 110 dots to the inch on paper.
            const qreal w = std::min<qreal>(width, img.width() * 96 / 110.0);
            fmt.setWidth(w);
            fmt.setHeight(w * img.height() / img.width());
            QTextCursor c(&doc);
            c.setPosition(frag.position());
            c.setPosition(frag.position() + frag.length(), QTextCursor::KeepAnchor);
            c.setCharFormat(fmt);
        }
    }
}

// Tables read as ruled grids across the text width, the header row shaded.
void styleTables(QTextFrame *frame)
{
    for (QTextFrame *child : frame->childFrames()) {
        if (auto *table = qobject_cast<QTextTable *>(child)) {
            QTextTableFormat f = table->format();
            f.setBorderCollapse(true);
            f.setBorder(0.6);
            f.setBorderBrush(QColor(150, 150, 150));
            f.setCellPadding(5);
            f.setCellSpacing(0);
            f.setWidth(QTextLength(QTextLength::PercentageLength, 100));
            f.setHeaderRowCount(1);
            table->setFormat(f);
            for (int c = 0; c < table->columns(); ++c) {
                QTextTableCell cell = table->cellAt(0, c);
                QTextCharFormat cf = cell.format();
                cf.setBackground(QColor(232, 236, 242));
                cell.setFormat(cf);
            }
        }
        styleTables(child);
    }
}

// Each chapter starts on a page of its own, so that a chapter with its
// screenshot stands together.
void breakBeforeChapters(QTextDocument &doc)
{
    for (QTextBlock b = doc.begin(); b.isValid(); b = b.next()) {
        if (b.blockFormat().headingLevel() != 2)
            continue;
        QTextBlockFormat f = b.blockFormat();
        f.setPageBreakPolicy(QTextFormat::PageBreak_AlwaysBefore);
        QTextCursor(b).setBlockFormat(f);
    }
}

} // namespace

int main(int argc, char **argv)
{
    QGuiApplication app(argc, argv);
    if (argc != 3 && argc != 4) {
        err << "usage: pyrolink-mkmanual SOURCE.md OUTPUT.PDF [VERSION]\n";
        return 2;
    }
    const QString source = QString::fromLocal8Bit(argv[1]);
    const QString target = QString::fromLocal8Bit(argv[2]);
    QFile in(source);
    if (!in.open(QIODevice::ReadOnly)) {
        err << "cannot read " << source << ": " << in.errorString() << "\n";
        return 1;
    }
    QString text = QString::fromUtf8(in.readAll());
    if (argc == 4)
        text.replace(QStringLiteral("@VERSION@"), QString::fromLocal8Bit(argv[3]));

    const QStringList families = QFontDatabase::families();
    if (!families.contains(QStringLiteral("WenQuanYi Micro Hei")))
        err << "warning: font WenQuanYi Micro Hei not found (fonts-wqy-microhei); Chinese may not show\n";

    QTextDocument doc;
    QFont body;
    body.setFamilies(kBodyFamilies);
    body.setPointSizeF(kBodyPoints);
    // No ligatures: "fi" written as one glyph reads back as "ﬁ", and a search
    // of the PDF for "first" or any message would miss it. Latin text needs
    // no shaping; CJK gets what it needs all the same.
    body.setStyleStrategy(QFont::PreferNoShaping);
    doc.setDefaultFont(body);
    QHash<QString, QImage> images;
    doc.setMarkdown(takeImages(text, QFileInfo(source).absolutePath(), images), QTextDocument::MarkdownDialectGitHub);
    // After setMarkdown, which clears the document's resources.
    for (auto it = images.cbegin(); it != images.cend(); ++it)
        doc.addResource(QTextDocument::ImageResource, QUrl(it.key()), it.value());

    styleTables(doc.rootFrame());
    breakBeforeChapters(doc);

    // The writer goes to a temporary name: a failed run leaves no PDF that
    // make would take for finished.
    const QString partial = target + QStringLiteral(".part");
    {
        QPdfWriter pdf(partial);
        pdf.setResolution(kDpi);
        pdf.setTitle(QStringLiteral("Pyrolink operator's manual"));
        pdf.setCreator(QStringLiteral("pyrolink-mkmanual"));
        // QTextDocument::print adds a margin of 2 cm of its own, with the page
        // number in it; the page's own margin only keeps clear of the edge.
        pdf.setPageLayout(QPageLayout(QPageSize(QPageSize::A4), QPageLayout::Portrait,
                                      QMarginsF(6, 4, 6, 4), QPageLayout::Millimeter));
        // Image sizes count in pixels of 96 to the inch, whatever the device.
        const qreal textMm = pdf.pageLayout().paintRect(QPageLayout::Millimeter).width() - 2 * 20;
        fitImages(doc, textMm / 25.4 * 96);
        doc.print(&pdf);
    }
    if (!QFileInfo(partial).isFile() || QFileInfo(partial).size() == 0) {
        err << "no PDF written to " << partial << "\n";
        return 1;
    }
    QFile::remove(target);
    if (!QFile::rename(partial, target)) {
        err << "cannot move " << partial << " to " << target << "\n";
        return 1;
    }
    return 0;
}
