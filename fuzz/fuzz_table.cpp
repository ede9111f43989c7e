// A table file (Config.For, Display.For) as a user could hand it: the
// loader, then the codec on every row it accepted, both ways.
#include "fuzzcommon.h"

#include "codec.h"
#include "image.h"
#include "prompter.h"
#include "tables.h"

namespace {

// Texts an operator could type into a value cell.
const char *const kTyped[] = {"0", "-1", "1", "255", "65535", "-32768", "2147483647", "4294967296",
                              "1e38", "-1e39", "0.5", "-0.004", "&HFFFF", "&O777", "abc", "", " 12 ",
                              "nan", "inf", "1.5e-45"};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray content(reinterpret_cast<const char *>(data), qsizetype(size));
    pyro::GridModel grid;
    QList<pyro::ParamRow> rows;
    pyro::TableInfo info;
    pyro::TableDiag diag;
    if (pyro::LoadProtocolTableData(grid, content, rows, info, &diag) != 0)
        return 0;

    // A block as the start-up step sizes it, filled from the input so that
    // every row meets varied bytes.
    QByteArray block(info.BlockSize + 1, '\0');
    for (int i = 0; i < block.size() && size > 0; ++i)
        block[i] = char(data[size_t(i) % size] ^ uint8_t(i * 31));
    pyro::ScriptedPrompter prompter;
    pyro::DecodeBlock(grid, block, rows, info, &prompter);
    pyro::CheckImage(block, info);
    pyro::StampImage(block, info);

    // Enough rows for every kind of cell; a long table only repeats them.
    constexpr int kRowsEncoded = 200;
    for (int r = 0, seen = 0; r < rows.size() && seen < kRowsEncoded; ++r) {
        if (rows[r].Addr < 1)
            continue;
        ++seen;
        QStringList texts = pyro::SplitList(rows[r].Labels);
        for (const char *t : kTyped)
            texts << QString::fromLatin1(t);
        for (const QString &t : texts) {
            pyro::EncodeValue(t, block, rows, r, &prompter);
            QString shown;
            pyro::DecodeRow(rows[r], block, info.BlockSize, shown);
        }
    }
    pyro::DecodeBlock(grid, block, rows, info, &prompter);
    return 0;
}
