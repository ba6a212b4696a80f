// Records a JVM that is stopped, or walks a recording: writes its threads and their stacks to standard
// output.
//
// usage: recorded_jvm record PID FILE | recorded_jvm walk FILE
#include "recorded_jvm.h"

#include <cstdio>
#include <cstdlib>

using namespace recorded;

int main(int count, char **words) {
    Image image;
    VmTable table;
    std::string problem, text;
    if (count == 4 && std::string(words[1]) == "record") {
        const pid_t pid = atoi(words[2]);
        Recorder memory(pid, image);
        if (const auto symbols = ReadVmSymbols(pid, memory, &problem))
            image.symbols = *symbols;
        if (table.Load(memory, image.symbols))
            text = WalkAll(memory, image.symbols, table, SIZE_MAX);
        image.Save(words[3]);
    } else if (count == 3 && image.Load(words[2])) {
        ImageMemory memory(image);
        if (table.Load(memory, image.symbols))
            text = WalkAll(memory, image.symbols, table, SIZE_MAX);
    }
    fputs(text.c_str(), stdout);
    return text.empty();
}
