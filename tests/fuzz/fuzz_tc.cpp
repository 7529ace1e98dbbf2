// Fuzzes the timecode text readers with any bytes (and no text at all): nothing read or written
// out of bounds, and every result they produce is empty or in the normal form.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <zqhandler/tc.h>

namespace {

constexpr size_t kTcBufferSize = 12;
constexpr int32_t kRates[] = {24, 25, 30, 50, 60};

void require(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "violated: %s\n", what);
        std::abort();
    }
}

// A result must end within its 12 bytes and be empty or "HH:MM:SS:FF" with ":.;" separators.
void require_empty_or_normal(const char* result, const char* what) {
    require(std::memchr(result, '\0', kTcBufferSize) != nullptr, what);
    require(result[0] == '\0' || tcstr_isnormal(result) == 1, what);
}

// Every reader of typed text on `text`, which may be null.
void check_readers(const char* text, size_t size) {
    std::unique_ptr<char[]> out(new char[kTcBufferSize]);
    std::unique_ptr<char[]> other(new char[kTcBufferSize]);
    const int32_t rate = kRates[size % std::size(kRates)];
    const int32_t drop = static_cast<int32_t>(size & 1);

    tcstr_isvalid(text);
    tcstr_isnormal(text);
    tc_validstr(text, rate);

    // Both readers from the end agree; only the second leaves the buffer alone on failure.
    const int reformatted = tcstr_reformat(out.get(), text);
    std::memcpy(other.get(), "untouched!!", kTcBufferSize);
    const int fixed_format = tc_tcstrFixFormat(other.get(), text);
    require(reformatted == fixed_format, "tcstr_reformat and tc_tcstrFixFormat agree");
    require_empty_or_normal(out.get(), "tcstr_reformat result");
    require(std::strcmp(other.get(), reformatted == 0 ? out.get() : "untouched!!") == 0,
            "tc_tcstrFixFormat result");

    for (int32_t forward = 0; forward <= 1; ++forward) {
        if (tcstr_validate(out.get(), text, 24, forward, rate, drop) == 0) {
            require_empty_or_normal(out.get(), "tcstr_validate result");
            require(out[0] == '\0' || tc_validstr(out.get(), rate >= 31 ? rate / 2 : rate) == 0,
                    "tcstr_validate keeps frames below the rate");
        }
    }

    tc_fix_tcstr(out.get(), text);
    require_empty_or_normal(out.get(), "tc_fix_tcstr result");
    require(out[0] != '\0', "tc_fix_tcstr always writes a timecode");

    uint8_t bcd[4];
    tc_tcstr2bcd(bcd, text);
    tc_bcd2tcstr(other.get(), bcd);
    require(std::memchr(other.get(), '\0', kTcBufferSize) == other.get() + 11, "BCD label length");

    // The positional readers on the same text.
    require(tc_tcstr2frames(text, rate, drop) >= -1, "tc_tcstr2frames gives a count or -1");
    require(tcstr_compute_duration(out.get(), text, tcstr_tc0, rate, 0, 0) == 0,
            "tcstr_compute_duration succeeds");
    require_empty_or_normal(out.get(), "tcstr_compute_duration result");
    tcstr_compute_eom(out.get(), text, text, rate, drop, 1, 24);
    require_empty_or_normal(out.get(), "tcstr_compute_eom result");
    tcstr_multiply(out.get(), text, static_cast<uint32_t>(size), rate, drop, 1, 24);
    require_empty_or_normal(out.get(), "tcstr_multiply result");
    tc_tcstradd(out.get(), text, text, rate, drop);
    require_empty_or_normal(out.get(), "tc_tcstradd result");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // An exact-size copy, so that AddressSanitizer catches a read past the NUL.
    std::unique_ptr<char[]> text(new char[size + 1]);
    std::memcpy(text.get(), data, size);
    text[size] = '\0';
    check_readers(text.get(), size);
    if (size == 0)
        check_readers(nullptr, 0); // no text at all reads as the empty one
    return 0;
}
