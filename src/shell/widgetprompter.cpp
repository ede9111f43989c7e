#include "widgetprompter.h"

#include <QFileDialog>
#include <QMessageBox>

namespace pyro {

// The design writes filters as "Text|*.EXT|Text|*.EXT"; Qt wants
// "Text (*.EXT *.ext);;...". Both cases of the pattern are offered, as the
// files come from systems that don't tell case apart.
QString QtFilter(const QString &filter)
{
    const QStringList parts = filter.split(QLatin1Char('|'));
    QStringList out;
    for (int i = 0; i + 1 < parts.size(); i += 2) {
        QString patterns = parts[i + 1];
        patterns.replace(QLatin1Char(';'), QLatin1Char(' '));
        if (patterns.toLower() != patterns)
            patterns += QLatin1Char(' ') + patterns.toLower();
        QString text = parts[i];
        const int paren = text.indexOf(QLatin1Char('('));
        if (paren >= 0)
            text = text.left(paren).trimmed();
        out << QStringLiteral("%1 (%2)").arg(text, patterns);
    }
    return out.isEmpty() ? filter : out.join(QStringLiteral(";;"));
}

void WidgetPrompter::message(const QString &text, const QString &title)
{
    QMessageBox box(QMessageBox::Warning, title, text, QMessageBox::Ok, m_parent);
    box.exec();
}

bool WidgetPrompter::question(const QString &text, const QString &title)
{
    QMessageBox box(QMessageBox::Warning, title, text, QMessageBox::Yes | QMessageBox::No, m_parent);
    return box.exec() == QMessageBox::Yes;
}

QString WidgetPrompter::openFile(const QString &title, const QString &filter, const QString &startDir)
{
    return QFileDialog::getOpenFileName(m_parent, title, startDir.isEmpty() ? m_fallbackDir : startDir,
                                        QtFilter(filter));
}

QString WidgetPrompter::saveFile(const QString &title, const QString &filter, const QString &startDir)
{
    // The overwrite question is the program's own, asked after the dialog.
    return QFileDialog::getSaveFileName(m_parent, title, startDir, QtFilter(filter), nullptr,
                                        QFileDialog::DontConfirmOverwrite);
}

} // namespace pyro
