#pragma once
#include "prompter.h"

class QWidget;

namespace pyro {

QString QtFilter(const QString &filter);

// Real message boxes and file dialogs: Yes/No and OK with the exclamation icon.
class WidgetPrompter : public Prompter {
public:
    explicit WidgetPrompter(QWidget *parent) : m_parent(parent) {}
    void message(const QString &text, const QString &title) override;
    bool question(const QString &text, const QString &title) override;
    QString openFile(const QString &title, const QString &filter, const QString &startDir) override;
    QString saveFile(const QString &title, const QString &filter, const QString &startDir) override;

private:
    QWidget *m_parent;
};

} // namespace pyro
