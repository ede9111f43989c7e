#pragma once
// An application folder with the demo data and a home for the records, and
// the window started on it with scripted answers.
#include "viewform.h"

#include <QDir>
#include <QFile>
#include <QLabel>
#include <QPlainTextEdit>
#include <QTemporaryDir>
#include <QTest>

using namespace pyro;

namespace {

inline QByteArray readAll(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

inline void writeAll(const QString &path, const QByteArray &bytes)
{
    QFile f(path);
    QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
    f.write(bytes);
}

// An application folder with the demo data, and a home for the records.
struct Bench {
    QTemporaryDir dir;
    ScriptedPrompter prompter;
    std::unique_ptr<ViewForm> form;

    explicit Bench(const QStringList &files = {"Config.For", "Display.For", "Config.MPK"})
    {
        for (const QString &f : files)
            QFile::copy(QStringLiteral(PYRO_DATA_DIR "/") + f, path(f));
        qputenv("HOME", dir.filePath("home").toLocal8Bit());
        QDir().mkpath(dir.filePath("home"));
    }
    QString path(const QString &name) const { return dir.filePath(name); }
    // The window as the load step leaves it, not yet shown.
    ViewForm &make()
    {
        ViewForm::Options o;
        o.appDir = dir.path();
        o.prompter = &prompter;
        form = std::make_unique<ViewForm>(o);
        return *form;
    }
    ViewForm &start()
    {
        make();
        form->show();
        if (!QTest::qWaitForWindowExposed(form.get()))
            qWarning("the window was not exposed");
        return *form;
    }
    template <typename W = QWidget>
    W *w(const QString &id) { return qobject_cast<W *>(form->control(id)); }
    QString panel(int i) { return form->findChild<QLabel *>(QStringLiteral("SB.Panel%1").arg(i))->text(); }
    QString log() { return w<QPlainTextEdit>("RTB")->toPlainText(); }
    QString recordFile() const
    {
        return QDir(dir.filePath("home/ProRecord(K0)")).filePath(RecordFileName(QDate::currentDate()));
    }
};

} // namespace
