#include "station.h"
#include "frame.h"
#include "portcontrol.h"
#include "qtserialcontrol.h"

#include <QDir>
#include <QFileInfo>

namespace pyro {

const QStringList kStationFrameLens{QStringLiteral("512"), QStringLiteral("256"), QStringLiteral("128"),
                                    QStringLiteral("64"), QStringLiteral("32"), QStringLiteral("16")};

namespace {

constexpr int kRecentKept = 6;
// Identify requests in a row without an answer before a row says so.
constexpr int kSilentToSay = kSilentPollsToForget;
// "date time" at the start of every log line, where the port's tag goes in.
constexpr int kStampChars = 19;

// Two names for one device (a COMn link and the device it points to) are one port.
QString deviceKey(const Station &s, const QString &name)
{
    const QString dev = ResolvePortName(name, s.appDir);
    if (dev.isEmpty())
        return {};
    const QString canon = QFileInfo(dev).canonicalFilePath();
    return canon.isEmpty() ? dev : canon;
}

bool chipActive(const StationPort &p)
{
    return p.burn.chipLog.active;
}

int activeChips(const Station &s)
{
    int n = 0;
    for (const auto &p : s.ports)
        n += p->running && chipActive(*p);
    return n;
}

void endRow(StationPort &p, const QString &state)
{
    p.running = false;
    p.state = state;
    p.runTicks = p.link.ticks - p.runStartedTick;
    if (p.port && p.port->isOpen())
        ClosePort(p.link);
}

// A row with no chip in hand ends quietly once the order is full.
void stopIdleRow(StationPort &p, const QString &state)
{
    if (p.link.view.Command4Caption == QLatin1String("Stop"))
        Command4Click(p.link, p.burn);
    endRow(p, state);
}

// Keeps the good chips of an order from overshooting: every chip in hand
// counts as one to come, and a row goes on to its next chip only while the
// order has room for it.
void pace(Station &s, const StationPort *except = nullptr)
{
    if (s.chipsTarget <= 0) {
        for (auto &p : s.ports)
            p->link.view.Check1[3] = s.autoLoad;
        return;
    }
    const int room = s.chipsTarget - s.good - activeChips(s);
    for (auto &p : s.ports) {
        p->link.view.Check1[3] = s.autoLoad && room > 0;
        if (p.get() != except && p->running && !chipActive(*p) && room <= 0)
            stopIdleRow(*p, QStringLiteral("order complete"));
    }
}

void chipEnded(Station &s, StationPort &p, const ChipRecord &r)
{
    const bool good = r.result == QLatin1String("done");
    if (good) {
        ++p.good;
        ++s.good;
        p.verdict = Verdict::Pass;
        p.reason = QStringLiteral("burned in %1 s").arg(double(r.durationMs) / 1000.0, 0, 'f', 1);
        p.bytesDone += r.imageLen;
    } else {
        ++p.failed;
        ++s.failed;
        p.verdict = Verdict::Fail;
        p.reason = StationFailReason(p, r.result);
        // The chip given up is not started over on its own: the next one to
        // count is another chip, or this one taken off and put back.
        p.burn.LastChipId = p.burn.ChipId;
    }
    p.percent = good ? 100 : p.percent;
    p.chipId = r.chipId;
    p.chipKnown = true;
    const QByteArray key(reinterpret_cast<const char *>(r.chipId.data()), int(r.chipId.size()));
    s.seen.insert(key, {p.name, r.when.toString(QStringLiteral("HH:mm:ss")), p.verdict});
    pace(s, &p);
    if (s.onChip)
        s.onChip(p, r);
}

void chipBegun(Station &s, StationPort &p)
{
    const ChipIdent id = p.burn.chipLog.current.chipId;
    p.chipId = id;
    p.chipKnown = true;
    p.lastDone = -1;
    p.stalled = 0;
    p.warning.clear();      // the last verdict stays until this chip has its own
    p.percent = 0;
    const QByteArray key(reinterpret_cast<const char *>(id.data()), int(id.size()));
    const auto it = s.seen.constFind(key);
    if (it != s.seen.cend())
        p.warning = QStringLiteral("chip met before: on %1 at %2, %3")
                        .arg(it->port, it->time, it->verdict == Verdict::Pass ? QStringLiteral("PASS") : QStringLiteral("FAIL"));
    if (s.askStore)
        s.askStore(id);
}

void watchExchange(StationPort &p, const ExchangeRecord &r)
{
    if (r.direction != ExchangeRecord::Received)
        return;
    if (r.function == kFnIdentify) {
        p.silentPolls = r.outcome == 0 ? 0 : p.silentPolls + 1;
        return;
    }
    p.silentPolls = 0;
    p.lastOutcome = r.outcome;
    p.lastStatus = r.frame.size() > 2 ? uint8_t(r.frame[2]) : 0;
}

// The port's new log lines, each told which port it is about.
void collectLog(Station &s, StationPort &p)
{
    QString &rtb = p.link.view.RTB;
    if (rtb.isEmpty())
        return;
    const QString tag = QStringLiteral(" [%1]").arg(p.name);
    qsizetype at = 0;
    while (at < rtb.size()) {
        qsizetype end = rtb.indexOf(QLatin1Char('\n'), at);
        end = end < 0 ? rtb.size() : end + 1;
        const QString line = rtb.mid(at, end - at);
        s.log += line.size() > kStampChars ? line.left(kStampChars) + tag + line.mid(kStampChars) : line;
        at = end;
    }
    rtb.clear();
}

void observe(Station &s, StationPort &p)
{
    if (p.burn.chipLog.begun != p.begunSeen) {
        p.begunSeen = p.burn.chipLog.begun;
        if (chipActive(p))
            chipBegun(s, p);
    }
    if (chipActive(p)) {
        // Once a page is full its bytes are in BinDone; PageFill keeps them
        // until the next erase.
        const bool pageClosed = p.link.StateWord >= 9;
        const int done = p.burn.BinDone + (pageClosed ? 0 : p.burn.PageFill);
        p.percent = p.burn.BinLen > 0 ? std::clamp(int(qint64(done) * 100 / p.burn.BinLen), 0, 100) : 0;
        p.state = QStringLiteral("burning");
        if (done != p.lastDone) {
            p.lastDone = done;
            p.stalled = 0;
        } else if (s.stallTicks > 0 && ++p.stalled >= s.stallTicks && p.link.MBStep == 0) {
            // Given up as the retry limit gives up: back to polling for a chip.
            p.stalled = 0;
            ChipLogEnd(p.link, p.burn, QStringLiteral("no progress"));
            p.link.TryCount = 0;
            p.link.StateWord = 1;
        }
    } else if (p.link.view.Command4Caption != QLatin1String("Stop")) {
        // The burn ended by itself: one chip without AutoLoad, or the order full.
        endRow(p, p.verdict == Verdict::Pass ? QStringLiteral("done") : QStringLiteral("ended"));
        return;
    } else if (p.verdict == Verdict::Fail && !s.autoLoad) {
        // Without AutoLoad a row burns one chip; a failed one ends it too.
        stopIdleRow(p, QStringLiteral("ended"));
        return;
    } else if (p.silentPolls >= kSilentToSay) {
        p.state = p.good + p.failed > 0 ? QStringLiteral("waiting for the next chip")
                                        : QStringLiteral("no answer from the board");
    } else if (p.chipKnown && p.burn.ChipId == p.burn.LastChipId && p.burn.LastChipId != ChipIdent{}) {
        p.state = QStringLiteral("take the chip off, put the next one on");
    } else {
        p.state = QStringLiteral("waiting for a chip");
    }
    collectLog(s, p);
}

QString refusalWords(int16_t result, const QString &reason)
{
    switch (result) {
    case kPrepareTooLong: return QStringLiteral("image refused: too long");
    case kPrepareKeepTooShort: return QStringLiteral("image refused: too short for KeepInF");
    case kPrepareSettingsBad: return QStringLiteral("image refused: settings block");
    case kPrepareNoFile:
        return reason.startsWith(QLatin1String(" No such file")) ? QStringLiteral("image refused: no such file")
                                                                  : QStringLiteral("image refused: cannot read it");
    case kPrepareNotBlank:
        return reason.startsWith(QLatin1String(" Image too short")) ? QStringLiteral("image refused: too short")
                                                                     : QStringLiteral("image refused: information block not blank");
    default: return QStringLiteral("image refused");
    }
}

bool prepare(Station &s)
{
    Link scratch;
    scratch.now = s.now;
    scratch.view.Check1[1] = s.keepInF;
    scratch.view.NotesTxt[5] = s.order;
    Burn b;
    QString reason;
    const int16_t r = PrepareImage(scratch, b, s.binPath, &reason);
    if (r != kPrepareOk) {
        s.imageReady = false;
        s.message = refusalWords(r, reason) + QStringLiteral(" (") + reason.trimmed() + QLatin1Char(')');
        for (auto &p : s.ports) {
            p->verdict = Verdict::Fail;
            p->reason = refusalWords(r, reason);
            p->state = QStringLiteral("not started");
        }
        return false;
    }
    s.binData = b.BinData;
    s.binLen = b.BinLen;
    s.imageReady = true;
    return true;
}

bool startRow(Station &s, StationPort &p)
{
    p.warning.clear();
    const QStringList held = s.portsInUse ? s.portsInUse() : QStringList();
    const QString key = deviceKey(s, p.name);
    for (const QString &h : held)
        if (!key.isEmpty() && deviceKey(s, h) == key) {
            p.verdict = Verdict::Fail;
            p.reason = QStringLiteral("port open in the main window");
            p.state = QStringLiteral("not started");
            return false;
        }
    View &v = p.link.view;
    for (int i = 0; i < 4; ++i)
        v.ComboSet[size_t(i + 1)].text = s.line[size_t(i)];
    v.ComboSet[5].text = s.frameLen;
    v.Check1[1] = s.keepInF;
    v.Check1[3] = s.autoLoad;
    v.NotesTxt[5] = s.order;
    p.link.fastLine = s.fastLine;
    if (!p.port->isOpen()) {
        Command2Click(p.link);
        if (!p.port->isOpen()) {
            const QString why = p.port->errorText();
            p.verdict = Verdict::Fail;
            p.reason = QStringLiteral("port cannot be opened");
            p.state = why.isEmpty() ? QStringLiteral("port cannot be opened") : why;
            return false;
        }
    }
    p.link.BinPath = s.binPath;
    p.burn.BinData = s.binData;      // shared, never written while it runs
    p.burn.BinLen = s.binLen;
    p.burn.chipLog.folder = s.recordFolder;
    v.Command4Caption = QStringLiteral("Stop");
    p.link.BurnArmed = 1;
    p.link.ModeRequest = 1;
    p.link.ModeRearmed = true;
    ShowProgress(v, s.binPath, 0);
    p.running = true;
    p.verdict = Verdict::None;
    p.reason.clear();
    p.percent = 0;
    p.silentPolls = 0;
    p.lastOutcome = -1;
    p.begunSeen = p.burn.chipLog.begun;
    p.runStartedTick = p.link.ticks;
    p.state = QStringLiteral("starting");
    return true;
}

} // namespace

bool StationRunning(const Station &s)
{
    for (const auto &p : s.ports)
        if (p->running)
            return true;
    return false;
}

bool StationAddPort(Station &s, const QString &name, QString *why)
{
    const QString n = name.trimmed();
    auto refuse = [why](const QString &text) {
        if (why)
            *why = text;
        return false;
    };
    if (StationRunning(s))
        return refuse(QStringLiteral("Stop the station before adding a port"));
    const QString key = deviceKey(s, n);
    if (key.isEmpty())
        return refuse(QStringLiteral("'%1' names no port").arg(n));
    for (const auto &p : s.ports)
        if (deviceKey(s, p->name) == key)
            return refuse(QStringLiteral("%1 is already on the station").arg(n));
    if (s.portsInUse)
        for (const QString &h : s.portsInUse())
            if (deviceKey(s, h) == key)
                return refuse(QStringLiteral("%1 is open in the main window").arg(n));

    auto p = std::make_unique<StationPort>();
    StationPort &r = *p;
    r.name = n;
    r.port = s.makePort ? s.makePort(n) : std::make_unique<QtSerialControl>();
    if (!r.port)
        return refuse(QStringLiteral("%1 can't be made").arg(n));
    r.link.appDir = s.appDir;
    r.link.now = [&s] { return s.now(); };
    if (s.clockUs)
        r.link.clockUs = [&s] { return s.clockUs(); };
    AttachPort(r.link, r.port.get());
    InitPortBoxes(r.link.view);
    r.link.view.ComboSet[0].text = n;   // the chip record's port column
    AttachBurn(r.link, r.burn);
    r.link.onExchange = [&r](const ExchangeRecord &e) { watchExchange(r, e); };
    r.burn.chipLog.onRecord = [&s, &r](const ChipRecord &c) { chipEnded(s, r, c); };
    r.burn.chipLog.toStore = [&s](const ChipRecord &c) {
        if (s.toStore)
            s.toStore(c);
    };
    r.state = QStringLiteral("idle");
    s.ports.push_back(std::move(p));
    return true;
}

bool StationRemovePort(Station &s, int row, QString *why)
{
    if (row < 0 || row >= int(s.ports.size()))
        return false;
    if (s.ports[size_t(row)]->running) {
        if (why)
            *why = QStringLiteral("Stop %1 before removing it").arg(s.ports[size_t(row)]->name);
        return false;
    }
    StationPort &p = *s.ports[size_t(row)];
    if (p.port->isOpen())
        ClosePort(p.link);
    collectLog(s, p);
    s.ports.erase(s.ports.begin() + row);
    return true;
}

bool StationLoadFile(Station &s, const QString &path, QString *why)
{
    if (StationRunning(s)) {
        if (why)
            *why = QStringLiteral("Stop every row before loading another image");
        return false;
    }
    if (!QFileInfo(path).isFile()) {
        if (why)
            *why = QStringLiteral("no such file: %1").arg(QDir::toNativeSeparators(path));
        return false;
    }
    s.binPath = path;
    s.imageReady = false;
    s.recent.removeAll(path);
    s.recent.prepend(path);
    while (s.recent.size() > kRecentKept)
        s.recent.removeLast();
    s.message = QStringLiteral("image %1, %2 bytes").arg(QFileInfo(path).fileName()).arg(QFileInfo(path).size());
    return true;
}

bool StationStart(Station &s)
{
    if (s.ports.empty()) {
        s.message = QStringLiteral("Add a port first");
        return false;
    }
    if (s.binPath.isEmpty()) {
        s.message = QStringLiteral("Load a file first");
        return false;
    }
    if (!StationRunning(s)) {
        // A fresh run: the image is read and stamped again, as Program does.
        if (!prepare(s))
            return false;
        s.good = s.failed = 0;
        s.seen.clear();
        for (auto &p : s.ports)
            p->good = p->failed = 0, p->bytesDone = 0, p->chipKnown = false;
    }
    int started = 0;
    for (auto &p : s.ports)
        if (!p->running)
            started += startRow(s, *p);
    pace(s);
    s.message = started > 0 ? QStringLiteral("running on %1 port(s)").arg(started)
                            : QStringLiteral("no port could be started");
    return started > 0;
}

void StationStopRow(Station &s, int row)
{
    if (row < 0 || row >= int(s.ports.size()))
        return;
    StationPort &p = *s.ports[size_t(row)];
    if (!p.running)
        return;
    if (p.link.view.Command4Caption == QLatin1String("Stop"))
        Command4Click(p.link, p.burn);   // the chip in hand is recorded as stopped
    endRow(p, QStringLiteral("stopped"));
    collectLog(s, p);
}

void StationStop(Station &s)
{
    for (int i = 0; i < int(s.ports.size()); ++i)
        StationStopRow(s, i);
    s.message = QStringLiteral("stopped");
}

void StationTick(Station &s)
{
    ++s.ticks;
    for (auto &ptr : s.ports) {
        StationPort &p = *ptr;
        if (!p.running)
            continue;
        pace(s);
        if (!p.running)
            continue;
        if (!p.port->isOpen()) {
            // Adapter pulled or board gone: the chip in hand is cut short.
            ChipLogEnd(p.link, p.burn, QStringLiteral("port lost"));
            p.verdict = Verdict::Fail;
            p.reason = QStringLiteral("board removed");
            MBTimTimer(p.link);          // the port's close steps, as the window takes them
            endRow(p, QStringLiteral("board removed"));
            collectLog(s, p);
            continue;
        }
        MBTimTimer(p.link);
        observe(s, p);
    }
    if (!StationRunning(s) && s.message.startsWith(QLatin1String("running")))
        s.message = QStringLiteral("finished: %1 good, %2 failed").arg(s.good).arg(s.failed);
}

void StationStoreKnows(Station &s, const QString &chipId, const QString &before)
{
    if (before.isEmpty())
        return;
    for (auto &p : s.ports) {
        // The chip in hand, or the last one while no other has begun.
        if (!p->chipKnown || ChipIdText(p->chipId).compare(chipId, Qt::CaseInsensitive) != 0
            || p->warning.contains(before))
            continue;
        p->warning = p->warning.isEmpty() ? QStringLiteral("chip met before: ") + before
                                          : p->warning + QStringLiteral("; ") + before;
    }
}

bool StationWriteRecord(Station &s)
{
    for (auto &p : s.ports)
        collectLog(s, *p);
    if (s.log.isEmpty() || s.recordFolder.isEmpty())
        return false;
    if (!AppendBurnRecord(s.recordFolder, s.now(), s.log))
        return false;
    s.log.clear();
    return true;
}

QString StationFailReason(const StationPort &p, const QString &result)
{
    if (result == QLatin1String("port lost"))
        return QStringLiteral("board removed");
    if (result == QLatin1String("stopped"))
        return QStringLiteral("stopped before the end");
    if (result == QLatin1String("interrupted"))
        return QStringLiteral("interrupted");
    if (result == QLatin1String("timed out"))
        return QStringLiteral("timed out");
    if (result == QLatin1String("no progress"))
        return p.lastOutcome == 0 && p.lastStatus != 0
            ? QStringLiteral("no progress: the chip refuses (status %1)").arg(p.lastStatus, 2, 16, QLatin1Char('0'))
            : QStringLiteral("no progress");
    if (result != QLatin1String("failed"))
        return result;
    const int tries = kBurnRetryLimit - 1;
    switch (p.lastOutcome) {
    case 0: return QStringLiteral("refused by the chip (status %1) after %2 tries")
                .arg(p.lastStatus, 2, 16, QLatin1Char('0')).arg(tries);
    case 1:
    case 2: return QStringLiteral("no answer after %1 tries").arg(tries);
    default: return QStringLiteral("bad answers after %1 tries").arg(tries);
    }
}

QRgb StationLamp(const StationPort &p)
{
    if (p.running && p.port && p.port->isOpen())
        return p.silentPolls >= kSilentToSay ? qRgb(255, 200, 0) : qRgb(0, 200, 0);
    if (p.verdict == Verdict::Fail && p.reason == QLatin1String("board removed"))
        return qRgb(230, 0, 0);
    return qRgb(160, 160, 160);
}

QString ChipIdText(const ChipIdent &id)
{
    return QString::fromLatin1(QByteArray(reinterpret_cast<const char *>(id.data()), int(id.size())).toHex().toUpper());
}

} // namespace pyro
