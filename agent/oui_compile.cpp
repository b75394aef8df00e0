// Build-time tool: oui_compile OUT CSV... turns the IEEE registry CSV files of the
// ieee-data package into the agent's compact vendor file. A missing CSV is reported
// and skipped, so a machine without ieee-data still builds (with no vendors).
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include "oui.h"

int main(int argc, char **argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: oui_compile OUT [CSV...]\n");
        return 2;
    }
    OuiRows rows;
    for (int i = 2; i < argc; ++i) {
        std::ifstream in(argv[i], std::ios::binary);
        if (!in) {
            std::fprintf(stderr, "oui_compile: %s not found (install ieee-data); skipped\n", argv[i]);
            continue;
        }
        std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
        addOuiCsv(text, rows);
    }
    std::string bytes = buildOuiFile(std::move(rows));
    std::ofstream out(argv[1], std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) {
        std::fprintf(stderr, "oui_compile: cannot write %s\n", argv[1]);
        return 1;
    }
    return 0;
}
