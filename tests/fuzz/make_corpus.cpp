// Writes the corpora anew: make_corpus DIRECTORY, which gets frames/ and commands/. Run it when the
// seeds or a layout change:  cmake --build build/release --target vell_corpus
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "commands.h"
#include "frames.h"
#include "seeds.h"

namespace
{

void write(const std::filesystem::path &path, const fuzz::bytes &content)
{
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char *>(content.data()),
              static_cast<std::streamsize>(content.size()));
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        (void)std::fputs("usage: make_corpus DIRECTORY\n", stderr);
        return 2;
    }
    const std::filesystem::path top = argv[1];
    std::filesystem::create_directories(top / "frames");
    std::filesystem::create_directories(top / "commands");
    fuzz::bytes everything;
    for (const fuzz::seed &seed : fuzz::frame_seeds()) {
        const fuzz::bytes record = fuzz::frame_record(seed.content, fake::link::ethernet);
        write(top / "frames" / seed.name, record);
        everything.insert(everything.end(), record.begin(), record.end());
    }
    write(top / "frames" / "all-kinds", everything);
    for (const fuzz::seed &seed : fuzz::frame_seeds()) {
        if (seed.name == "tcp-80" || seed.name == "tcp-84") {
            write(top / "frames" / ("slip-" + seed.name),
                  fuzz::frame_record(seed.content, fake::link::slip));
        }
    }
    for (const fuzz::seed &seed : fuzz::command_seeds()) {
        write(top / "commands" / seed.name, fuzz::command_record(seed.content));
    }
    return 0;
}
