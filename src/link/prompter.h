#pragma once
#include <QString>
#include <QStringList>

namespace pyro {

// Message boxes, questions and file dialogs. The window shows real boxes, the
// command line prints and answers from its options, tests answer from a script.
class Prompter {
public:
    virtual ~Prompter() = default;
    // A report with OK and the exclamation icon.
    virtual void message(const QString &text, const QString &title) = 0;
    // A question with Yes and No; true for Yes.
    virtual bool question(const QString &text, const QString &title) = 0;
    // File dialogs; an empty text means the user cancelled.
    virtual QString openFile(const QString &title, const QString &filter, const QString &startDir) = 0;
    virtual QString saveFile(const QString &title, const QString &filter, const QString &startDir) = 0;
};

// Answers from a queue and remembers what it was shown.
class ScriptedPrompter : public Prompter {
public:
    QStringList shown;          // "title|text" of every box, in order
    QList<bool> answers;        // next question answers; Yes when empty
    QStringList files;          // next file dialog answers; cancel when empty

    void message(const QString &text, const QString &title) override { shown << title + '|' + text; }
    bool question(const QString &text, const QString &title) override
    {
        shown << title + '|' + text;
        return answers.isEmpty() ? true : answers.takeFirst();
    }
    QString openFile(const QString &title, const QString &, const QString &) override
    {
        shown << "open|" + title;
        return files.isEmpty() ? QString() : files.takeFirst();
    }
    QString saveFile(const QString &title, const QString &, const QString &) override
    {
        shown << "save|" + title;
        return files.isEmpty() ? QString() : files.takeFirst();
    }
};

} // namespace pyro
