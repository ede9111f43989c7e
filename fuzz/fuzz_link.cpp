// The reply path of every mode through the in-memory port: the fuzzer is the
// board (and the operator's hand). Each frame the tool sends is answered as
// the input says, and between answers the input may click buttons, so the
// monitor, the burn and every parameter operation meet replies that are
// good, late, split, cut, corrupt, foreign or endless.
//
// Input: a stream of ops, read each time the tool has sent a frame until one
// of them answers it. An op byte c names its kind in c & 7:
//   0 silence             the frame goes unanswered
//   1 board               the simulated board answers, (c >> 3) & 7 ticks late
//   2 crafted             a frame with the request's function (or, with
//                         c & 8, the next byte), a body of the next byte's
//                         length, and a right CRC
//   3 raw                 a 16-bit length (up to 2047), then that many bytes
//                         as they stand
//   4 board, split        the board's answer cut at the next byte, the rest
//                         (c >> 3) & 7 ticks later
//   5 board, altered      the board's answer with the byte at the next byte
//                         XORed with the byte after; with c & 8 the CRC is
//                         made right again
//   6 hand                a click (the next byte), then the next op
//   7 wait                (next byte) ticks pass, then the next op
// A click (op 6) is, by its byte mod 16: 0 Program/Stop, 1 Load File (of the
// files below, by the next byte), 2 a frame length typed into ComboSet(5),
// 3 KeepInF, 4 AutoLoad, 5 CurrSet, 6..11 the image buttons 0, 1, 2, 3, 5, 6,
// 12 open/close the port, 13 the adapter pulled, 14 a ComboSet change, 15 a
// value typed into a row of the settings grid.
// While nothing is sent (the port closed) the ops are read every 40 ticks.
// When the input ends, the line goes quiet for a while and the run ends.
//
// With PYRO_FUZZ_STRICT set in the environment, a chip reported burned must
// have been sent every byte of the image it is reported with.
#include "fuzzcommon.h"

#include "burn.h"
#include "codec.h"
#include "fakeport.h"
#include "frame.h"
#include "link.h"
#include "paramops.h"
#include "params.h"
#include "portcontrol.h"
#include "samplevalues.h"
#include "simboard.h"

#include <QList>
#include <utility>

namespace {

constexpr int kMaxTicks = 6000;     // a whole run, however long the input
constexpr int kQuietTail = 60;      // ticks after the input ends
constexpr int kMaxRaw = 2047;
constexpr int kIdleTicks = 40;      // ticks without a frame before the input is read anyway

// Firmware files the hand can choose: burnable ones of several lengths,
// one whose block is not blank, one too short, one that isn't there.
QStringList &images()
{
    static QStringList paths = [] {
        // Each file with bytes of its own, so that pages of two images differ.
        int seed = 0;
        auto image = [&seed](int len, bool blank) {
            QByteArray img(len, '\0');
            ++seed;
            for (int i = 0; i < len; ++i)
                img[i] = char((i * 37 + (i >> 8) + seed * 101) & 0xFF);
            for (int i = pyro::kInfoOffset; i < pyro::kInfoOffset + pyro::kInfoSize && i < len; ++i)
                img[i] = char(blank ? 0xFF : 0x12);
            return img;
        };
        return QStringList{
            fuzz::writeTemp(QStringLiteral("a2500.BIN"), image(2500, true)),
            fuzz::writeTemp(QStringLiteral("b1100.BIN"), image(1100, true)),
            fuzz::writeTemp(QStringLiteral("c5000.BIN"), image(5000, true)),
            fuzz::writeTemp(QStringLiteral("d2048.BIN"), image(2048, true)),
            fuzz::writeTemp(QStringLiteral("e2500.BIN"), image(2500, false)),
            fuzz::writeTemp(QStringLiteral("f0100.BIN"), image(100, true)),
            fuzz::tempDir().filePath(QStringLiteral("missing.BIN")),
        };
    }();
    return paths;
}

const char *const kFrameLens[] = {"512", "256", "128", "64", "32", "16", "1", "0", "1024", "1025",
                                  "32767", "99999", "abc", " 48x", "-5"};
const char *const kTyped[] = {"0", "1", "-1", "65535", "1e9", "abc", "0.5"};

bool strict()
{
    static const bool on = qEnvironmentVariableIsSet("PYRO_FUZZ_STRICT");
    return on;
}

struct Run {
    pyro::Link link;
    pyro::FakePort port;
    pyro::ScriptedPrompter prompter;
    pyro::Burn burn;
    pyro::Params params;
    pyro::ParamOps ops;
    pyro::SimBoard board;
    QList<std::pair<qint64, QByteArray>> due;   // bytes for the port, by tick
    QByteArray request;                          // the frame waiting for its answer
    bool pending = false;
    qint64 tick = 0;

    Run()
    {
        // The tables are read once; each run starts from a copy, with grids
        // of the same size and default cells.
        static const pyro::Params *tables = [] {
            auto *p = new pyro::Params;
            pyro::TableDiag diag;
            for (int t = 0; t < 2; ++t) {
                const QByteArray text = fuzz::sampleData(t == 0 ? "Config.For" : "Display.For");
                if (pyro::LoadProtocolTableData(p->MSFG[t], text, p->rows(t), p->Tables[t], &diag) != 0)
                    std::abort();
                p->block(t) = QByteArray(p->Tables[t].BlockSize + 1, '\0');
            }
            p->SetImage.replace(0, p->Tables[0].BlockSize,
                                pyro::SampleSettingsBlock().left(p->Tables[0].BlockSize));
            return p;
        }();
        for (int t = 0; t < 2; ++t) {
            params.Tables[t] = tables->Tables[t];
            params.MSFG[t].clear(tables->MSFG[t].rows(), tables->MSFG[t].cols());
        }
        params.SetRows = tables->SetRows;
        params.DisplayRows = tables->DisplayRows;
        params.SetImage = tables->SetImage;
        params.DisplayImage = tables->DisplayImage;

        link.prompter = &prompter;
        link.now = fuzz::fixedNow;
        pyro::AttachPort(link, &port);
        pyro::AttachBurn(link, burn);
        pyro::InstallParamOps(link, params, ops);
        burn.params = &params;
        pyro::InitPortBoxes(link.view);
        link.view.ComboSet[0].text = QStringLiteral("/dev/fake0");
        link.view.NotesTxt[5] = QStringLiteral("FUZZ-1");
        pyro::simInit(board, pyro::SimOptions());
        port.onOutput = [this](const QByteArray &frame) {
            request = frame;
            pending = true;
            if (strict())
                shadowFlash(frame);
        };
        pyro::Command2Click(link);
    }

    void step()
    {
        port.pump();
        for (qsizetype i = 0; i < due.size();) {
            if (due[i].first <= tick) {
                port.deliver(due[i].second);
                due.removeAt(i);
            } else {
                ++i;
            }
        }
        pyro::MBTimTimer(link);
        ++tick;
        if (strict())
            checkBurned();
    }

    // PYRO_FUZZ_STRICT: the pages the tool wrote since the chip entered its
    // loader, as the frames it sent say; a chip reported burned must hold
    // the image the burn was started with, every byte of it.
    QByteArray shadow = QByteArray(pyro::kMaxImageLen + 2 * pyro::kFlashPageSize, '\0');
    QByteArray shadowSet = QByteArray(shadow.size(), '\0');
    int shadowPage = 0;
    bool keepSeen = false;
    qsizetype burnedLogs = 0;

    void shadowFlash(const QByteArray &f)
    {
        const uint8_t fn = f.size() > 1 ? uint8_t(f[1]) : 0;
        keepSeen = keepSeen || link.view.Check1[1];
        if (fn == pyro::kFnEnterDownload) {
            shadowSet.fill('\0');
            keepSeen = link.view.Check1[1];
        } else if (fn == pyro::kFnErasePage && f.size() >= 9) {
            shadowPage = int(pyro::getLe32(f, 3)) - pyro::kFlashBase;
            if (shadowPage >= 0 && shadowPage + pyro::kFlashPageSize <= shadow.size())
                shadowSet.replace(shadowPage, pyro::kFlashPageSize, QByteArray(pyro::kFlashPageSize, '\0'));
        } else if (fn == pyro::kFnWritePage && f.size() >= 9) {
            const int off = pyro::getLe16(f, 3), count = pyro::getLe16(f, 5);
            for (int i = 0; i < count && 7 + i < f.size() - 2; ++i) {
                const int at = shadowPage + off + i;
                if (at >= 0 && at < shadow.size()) {
                    shadow[at] = f[7 + i];
                    shadowSet[at] = 1;
                }
            }
        }
    }

    void checkBurned()
    {
        static const QString done = QStringLiteral("Has been successfully burning");
        const qsizetype n = link.view.RTB.count(done);
        if (n == burnedLogs)
            return;
        burnedLogs = n;
        for (int i = 0; i < burn.BinLen && i < shadow.size(); ++i) {
            if (keepSeen && i >= pyro::kKeepFrom && i < pyro::kKeepTo && burn.BinLen >= pyro::kKeepTo)
                continue;
            if (!shadowSet[i] || shadow[i] != burn.BinData[i]) {
                fprintf(stderr, "fuzz_link: chip reported burned, but byte %d of the image %s\n", i,
                        shadowSet[i] ? "was written with other data" : "was never written");
                std::abort();
            }
        }
    }

    void later(int ticks, const QByteArray &bytes)
    {
        if (!bytes.isEmpty())
            due.append({tick + ticks, bytes});
    }

    // What the simulated board says to the frame; its own delays are skipped.
    QByteArray boardAnswer()
    {
        if (request.isEmpty())
            return {};
        pyro::simReceive(board, request);
        QByteArray out;
        for (int i = 0; i < 64 && out.isEmpty(); ++i)
            out = pyro::simTick(board);
        return out;
    }

    void hand(uint8_t a, fuzz::Reader &in)
    {
        pyro::View &v = link.view;
        switch (a % 16) {
        case 0: pyro::Command4Click(link, burn); break;
        case 1: pyro::ChooseFile(link, burn, images()[in.byte() % images().size()]); break;
        case 2: v.ComboSet[5].text = QLatin1String(kFrameLens[in.byte() % std::size(kFrameLens)]); break;
        case 3: v.Check1[1] = !v.Check1[1]; break;   // KeepInF
        case 4: v.Check1[3] = !v.Check1[3]; break;   // AutoLoad
        case 5: v.Check1[2] = !v.Check1[2]; break;   // CurrSet
        case 6: case 7: case 8: case 9: case 10: case 11: {
            static const int buttons[] = {0, 1, 2, 3, 5, 6};
            pyro::MenuImgClick(ops, buttons[a % 16 - 6]);
            break;
        }
        case 12: pyro::Command2Click(link); break;
        case 13: port.vanish(); break;
        case 14: pyro::ComboSetChange(link, in.byte() % 6); break;
        case 15: {
            const int row = in.byte();
            if (row < params.SetRows.size())
                pyro::EncodeValue(QLatin1String(kTyped[in.byte() % std::size(kTyped)]), params.SetImage,
                                  params.SetRows, row, &prompter);
            break;
        }
        }
    }

    // Reads ops until one answers the frame; false when the input has ended.
    bool answer(fuzz::Reader &in)
    {
        while (!in.done()) {
            const uint8_t c = in.byte();
            switch (c & 7) {
            case 0:
                return true;
            case 1:
                later((c >> 3) & 7, boardAnswer());
                return true;
            case 2: {
                const uint8_t fn = (c & 8) ? in.byte() : uint8_t(request.size() > 1 ? request[1] : 0);
                const QByteArray body = in.bytes(in.byte());
                later(0, pyro::MBBuildFrame(fn, body));
                return true;
            }
            case 3:
                later(0, in.bytes(in.word() & kMaxRaw));
                return true;
            case 4: {
                const QByteArray a = boardAnswer();
                const int cut = a.isEmpty() ? 0 : in.byte() % a.size();
                later(0, a.left(cut));
                later(1 + ((c >> 3) & 7), a.mid(cut));
                return true;
            }
            case 5: {
                QByteArray a = boardAnswer();
                const uint8_t at = in.byte(), x = in.byte();
                if (!a.isEmpty()) {
                    a[at % a.size()] = char(a[at % a.size()] ^ x);
                    if ((c & 8) && a.size() >= 4)
                        a = pyro::MBBuildFrame(uint8_t(a[1]), a.mid(2, a.size() - 4));
                }
                later(0, a);
                return true;
            }
            case 6:
                hand(in.byte(), in);
                break;
            case 7:
                for (int n = in.byte(); n > 0 && tick < kMaxTicks; --n)
                    step();
                break;
            }
        }
        return false;
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    images();
    fuzz::Reader in(data, size);
    Run run;
    bool more = true;
    int quiet = 0;
    int idle = 0;
    while (run.tick < kMaxTicks && quiet < kQuietTail) {
        // With the port closed nothing is sent; the input goes on after a
        // while all the same, so that it can open the port again.
        if (run.pending || ++idle >= kIdleTicks) {
            if (!run.pending)
                run.request.clear();
            run.pending = false;
            idle = 0;
            if (more)
                more = run.answer(in);
        }
        if (!more)
            ++quiet;
        run.step();
    }
    // PYRO_FUZZ_TRACE=1 shows what a run came to, for checking seeds.
    static const bool trace = qEnvironmentVariableIsSet("PYRO_FUZZ_TRACE");
    if (trace)
        fprintf(stderr, "ticks %lld, frames %lld, mode %d, panels [%s] [%s]\n%s\n", qlonglong(run.tick),
                qlonglong(run.port.written.size()), run.link.LinkMode, qPrintable(run.link.view.SB[1]),
                qPrintable(run.link.view.SB[2]), qPrintable(run.link.view.RTB));
    return 0;
}
