// Builds the operator's manual, Pyrolink_UG.PDF, from its Markdown source with
// Qt's own text layout and PDF writer, so the build needs no other tool.
// Screenshots that the source names but that aren't there yet are left out.
//
//   pyrolink-mkmanual SOURCE.md OUTPUT.PDF
#include <QFile>
#include <QFileInfo>
#include <QFontDatabase>
#include <QGuiApplication>
#include <QImage>
#include <QPageLayout>
#include <QPdfWriter>
#include <QRegularExpression>
#include <QTextBlock>
#include <QTextCursor>
#include <QTextDocument>
#include <QTextStream>

namespace {

QTextStream err(stderr);

// Latin text in a sans face; CJK falls through to a face that has it.
const QStringList kBodyFamilies{"DejaVu Sans", "WenQuanYi Micro Hei", "Noto Sans CJK SC"};
constexpr double kBodyPoints = 9.5;
constexpr int kDpi = 300;

// Drops image references whose file is missing and registers the others.
QString takeImages(const QString &source, const QString &baseDir, QTextDocument &doc)
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
        doc.addResource(QTextDocument::ImageResource, QUrl(name), img);
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
            // Screenshots at screen resolution shown at about 110 dpi on paper.
            const qreal w = std::min<qreal>(width, img.width() * kDpi / 110.0);
            fmt.setWidth(w);
            fmt.setHeight(w * img.height() / img.width());
            QTextCursor c(&doc);
            c.setPosition(frag.position());
            c.setPosition(frag.position() + frag.length(), QTextCursor::KeepAnchor);
            c.setCharFormat(fmt);
        }
    }
}

} // namespace

int main(int argc, char **argv)
{
    QGuiApplication app(argc, argv);
    if (argc != 3) {
        err << "usage: pyrolink-mkmanual SOURCE.md OUTPUT.PDF\n";
        return 2;
    }
    const QString source = QString::fromLocal8Bit(argv[1]);
    const QString target = QString::fromLocal8Bit(argv[2]);
    QFile in(source);
    if (!in.open(QIODevice::ReadOnly)) {
        err << "cannot read " << source << ": " << in.errorString() << "\n";
        return 1;
    }
    const QString text = QString::fromUtf8(in.readAll());

    const QStringList families = QFontDatabase::families();
    if (!families.contains(QStringLiteral("WenQuanYi Micro Hei")))
        err << "warning: font WenQuanYi Micro Hei not found (fonts-wqy-microhei); Chinese may not show\n";

    QTextDocument doc;
    QFont body;
    body.setFamilies(kBodyFamilies);
    body.setPointSizeF(kBodyPoints);
    doc.setDefaultFont(body);
    doc.setMarkdown(takeImages(text, QFileInfo(source).absolutePath(), doc), QTextDocument::MarkdownDialectGitHub);

    // The writer goes to a temporary name: a failed run leaves no PDF that
    // make would take for finished.
    const QString partial = target + QStringLiteral(".part");
    {
        QPdfWriter pdf(partial);
        pdf.setResolution(kDpi);
        pdf.setTitle(QStringLiteral("Pyrolink operator's manual"));
        pdf.setCreator(QStringLiteral("pyrolink-mkmanual"));
        pdf.setPageLayout(QPageLayout(QPageSize(QPageSize::A4), QPageLayout::Portrait,
                                      QMarginsF(18, 16, 18, 16), QPageLayout::Millimeter));
        fitImages(doc, pdf.pageLayout().paintRectPixels(kDpi).width() * 0.9);
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
