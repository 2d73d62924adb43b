// The base64 rule of local_write_file. FileWriter::decodeStrictBase64 must accept exactly the
// texts a small reference decoder accepts, give the same bytes, and whatever it accepts must
// come back from re-encoding: the same text, once the bits of the last symbol that carry no
// data are cleared (those are ignored on decoding, as they are by the usual decoders).
//
// Input: the text, taken both as UTF-8 (with replacement) and as Latin-1.

#include "Base64Reference.h"
#include "FileWriter.h"
#include "FuzzCheck.h"

namespace {

void check(const QString& text) {
    const std::optional<QByteArray> expected = base64reference::decode(text);
    const std::optional<QByteArray> got = FileWriter::decodeStrictBase64(text);
    const auto detail = [&] { return fuzzQuote(text); };
    FUZZ_CHECK(got.has_value() == expected.has_value(), detail());
    if (!got) {
        return;
    }
    const QString canonical = base64reference::canonical(text);
    FUZZ_CHECK(*got == *expected, detail());
    FUZZ_CHECK(base64reference::encode(*got) == canonical, detail());
    FUZZ_CHECK(QString::fromLatin1(got->toBase64()) == canonical, detail());
    // The canonical text is a fixed point.
    const std::optional<QByteArray> again = FileWriter::decodeStrictBase64(canonical);
    FUZZ_CHECK(again && *again == *got, detail());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArrayView bytes(data, static_cast<qsizetype>(size));
    check(QString::fromUtf8(bytes));
    check(QString::fromLatin1(bytes));
    return 0;
}
