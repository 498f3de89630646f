// The whole engine: sequences of frames, ticks, links, configuration changes and failures.
#include "story.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz::Input input(data, size);
    std::string broken;
    printed([&] { broken = Story(1 + input.below(LAC_MAX_PORTS)).draw(input); });
    fake::reset_datastore(); // what is kept would look like a leak
    fuzz::require(broken.empty(), broken.c_str());
    return 0;
}
