// Any bytes as a request to the emulator, read as a Sony frame and as a Louth frame: the deck and
// the disk server answer with a whole frame of their own, and every name the log gives is made
// without reading past what came.
#include <cstdlib>
#include <devsim/louth.h>
#include <devsim/names.h>
#include <devsim/sony_answers.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    devsim::Model model;
    devsim::SonyAnswers deck(model);
    devsim::LouthServer server(model);
    const devsim::Bytes request(data, data + size);
    const devsim::Bytes answer = deck.answer(request);
    if (answer.size() < 2 || answer.size() != (answer[0] & 0x0Fu) + 2u)
        abort();
    const devsim::Bytes refusal_or_frame = server.answer(request);
    if (refusal_or_frame.empty() ||
        (refusal_or_frame[0] == 0x02 && refusal_or_frame.size() != refusal_or_frame[1] + 3u))
        abort();
    const bool from_device = size % 2 == 1;
    const std::string texts[] = {devsim::describe_sony(request), devsim::describe_louth(request),
                                 devsim::describe_stream(request, from_device),
                                 devsim::describe_mgmt(request, from_device)};
    for (const std::string& text : texts)
        if (text.empty())
            abort();
    return 0;
}
