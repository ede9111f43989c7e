#pragma once
#include "prompter.h"

#include <QString>

class QWidget;

namespace pyro {

QString QtFilter(const QString &filter);

// Real message boxes and file dialogs: Yes/No and OK with the exclamation icon.
class WidgetPrompter : public Prompter {
public:
    // fallbackDir: where an Open dialog given no folder starts: the
    // application folder, where the demo firmware and the tables are, rather
    // than whatever folder a desktop launcher started us in (saves keep it).
    explicit WidgetPrompter(QWidget *parent, const QString &fallbackDir = {})
        : m_parent(parent), m_fallbackDir(fallbackDir) {}
    void message(const QString &text, const QString &title) override;
    bool question(const QString &text, const QString &title) override;
    QString openFile(const QString &title, const QString &filter, const QString &startDir) override;
    QString saveFile(const QString &title, const QString &filter, const QString &startDir) override;

private:
    QWidget *m_parent;
    QString m_fallbackDir;
};

} // namespace pyro
