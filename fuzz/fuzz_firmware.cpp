// A firmware file as a user could choose it: Load File, then PrepareImage
// with each combination of KeepInF and CurrSet, and the information block
// read from it. A stamped image must be the file with its block stamped and
// nothing else changed.
#include "fuzzcommon.h"

#include "burn.h"
#include "infoblock.h"
#include "params.h"

namespace {

pyro::Params &params()
{
    static pyro::Params *p = [] {
        auto *q = new pyro::Params;
        pyro::TableDiag diag;
        if (pyro::LoadProtocolTableData(q->MSFG[0], fuzz::sampleData("Config.For"), q->SetRows,
                                        q->Tables[0], &diag) != 0)
            std::abort();
        return q;
    }();
    return *p;
}

void check(bool ok)
{
    if (!ok)
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray file(reinterpret_cast<const char *>(data), qsizetype(size));
    const QString path = fuzz::writeTemp(QStringLiteral("image.BIN"), file);

    pyro::BitInfRec rec;
    if (pyro::readBitInfRec(file, 0, &rec))
        check(pyro::writeBitInfRec(rec).size() == pyro::kInfoSize);
    const bool hasBlock = pyro::readBitInfRec(file, pyro::kInfoOffset, &rec);

    pyro::Params &p = params();
    const int blockSize = p.Tables[0].BlockSize;
    for (int config = 0; config < 4; ++config) {
        pyro::Link l;
        l.now = fuzz::fixedNow;
        pyro::Burn b;
        b.params = &p;
        l.view.Check1[1] = config & 1;   // KeepInF
        l.view.Check1[2] = config & 2;   // CurrSet
        // The order text and the settings block come from the file too, as
        // a user's notes and a board's block could hold anything.
        if (hasBlock)
            l.view.NotesTxt[5] = rec.OrderId + rec.RemarkStamp;
        p.SetImage = file.mid(pyro::kKeepFrom, blockSize + 1).leftJustified(blockSize + 1, '\0', true);

        pyro::ChooseFile(l, b, path);
        QString reason;
        if (pyro::PrepareImage(l, b, path, &reason) != pyro::kPrepareOk) {
            check(!reason.isEmpty());
            continue;
        }
        check(b.BinLen == qint64(size) && b.BinData.size() == b.BinLen + 1);
        check(b.BinData.at(b.BinLen) == 0);
        pyro::BitInfRec stamped;
        check(pyro::readBitInfRec(b.BinData, pyro::kInfoOffset, &stamped) && stamped.DeviceId == -1
              && stamped.DeviceId2 == -1);
        // Outside the block (and the settings pages with CurrSet) the image
        // is the file as it stands.
        for (int i = 0; i < b.BinLen; ++i) {
            if (i >= pyro::kInfoOffset && i < pyro::kInfoOffset + pyro::kInfoSize)
                continue;
            if (l.view.Check1[2] && i >= pyro::kKeepFrom && i < pyro::kKeepTo)
                continue;
            check(b.BinData.at(i) == file.at(i));
        }
    }
    return 0;
}
