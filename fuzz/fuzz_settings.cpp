// A settings file (JSON or CSV) as a user could hand it: parsed and checked
// against the demo settings table, put onto the sample block. With
// PYRO_FUZZ_STRICT set, a file that is taken must come out again as a file
// that gives the very same block.
#include "fuzzcommon.h"

#include "params.h"
#include "settingsfile.h"

#include <cstdlib>

namespace {

struct Table {
    pyro::Params p;
    QByteArray base;
    Table()
    {
        if (pyro::LoadProtocolTable(p.MSFG[0], QStringLiteral(PYRO_DATA_DIR "/Config.For"), p.SetRows, p.Tables[0]) != 0)
            std::abort();
        base = pyro::DefaultsBlock(p);
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static Table t;
    const QByteArray bytes(reinterpret_cast<const char *>(data), qsizetype(size));
    QByteArray block = t.base;
    pyro::ImportDiag diag;
    if (!pyro::ImportSettings(t.p, bytes, t.base, block, diag)) {
        // A refusal changes nothing and always says why.
        if (block != t.base || diag.reason.isEmpty())
            std::abort();
        return 0;
    }
    if (!pyro::GoodBlock(t.p, block))
        std::abort();
    static const bool strict = qEnvironmentVariableIsSet("PYRO_FUZZ_STRICT");
    if (strict) {
        for (auto format : {pyro::SettingsFormat::Json, pyro::SettingsFormat::Csv}) {
            QByteArray again;
            if (!pyro::ImportSettings(t.p, pyro::ExportSettings(t.p, block, format, "fuzz"), t.base, again, diag)
                || again != block)
                std::abort();
        }
    }
    return 0;
}
