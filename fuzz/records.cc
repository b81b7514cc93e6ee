/* The decoders of the client library: any bytes, any count. What decodes is whole, is freed to the
 * last text, and decodes to the same again once it has been packed. The first byte chooses the
 * record, the next four are the count, the rest is the buffer. */
#include "input.h"
#include "recode.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input = {data, size};
    const auto kind = static_cast<record_kind>(input_u8(&input) % RECORD_KINDS);
    const auto count = static_cast<int32_t>(input_u32(&input));
    const std::string bytes = input_bytes(&input, input.left);
    std::string first;
    if (!recode(kind, bytes, count, &first)) {
        return 0;
    }
    require(first.size() <= bytes.size(), "packed records are no longer than those they came from");
    std::string second;
    require(recode(kind, first, count, &second), "packed records decode");
    require(first == second, "packed records decode to the same");
    return 0;
}
