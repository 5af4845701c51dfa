// SPDX-License-Identifier: MIT
//
// A fuzz target without a fuzzer: the inputs of a corpus, and as many mutations of them as asked for, the
// same ones at every run.
//
//     TARGET CORPUS-DIRECTORY COUNT     TARGET FILE
//
// An input that makes the target stop stays behind in the file "fuzz-input", which the second form runs
// again.

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

static std::vector<uint8_t> gInput;

static void run(const std::string &input) {
    // Of its exact size and on the heap, so that a sanitizer sees a byte too far.
    gInput = std::vector<uint8_t>(input.begin(), input.end());
    LLVMFuzzerTestOneInput(gInput.data(), gInput.size());
}

static void keep_input(int) {
    if (FILE *file = fopen("fuzz-input", "wb")) {
        fwrite(gInput.data(), 1, gInput.size(), file);
        fclose(file);
    }
    std::_Exit(1);
}

int main(int argc, char **argv) {
    if (argc < 2) return 2;
    signal(SIGABRT, keep_input);
    std::vector<std::filesystem::path> files = {argv[1]};
    if (std::filesystem::is_directory(argv[1]))
        files.assign(std::filesystem::directory_iterator(argv[1]), {});
    std::sort(files.begin(), files.end());
    std::vector<std::string> corpus;
    for (const auto &path : files) {
        std::ifstream file(path, std::ios::binary);
        run(corpus.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()));
    }
    if (corpus.empty()) return 2;
    std::mt19937 random(1);
    const auto below = [&random](size_t count) { return random() % count; };
    const long count = argc > 2 ? atol(argv[2]) : 0;
    for (long i = 0; i < count; ++i) {
        std::string text = corpus[below(corpus.size())].substr(0, 1 << 16);
        for (size_t left = 1 + below(6); left > 0; --left) {
            const std::string &other = corpus[below(corpus.size())];
            const size_t at = below(text.size() + 1), from = below(other.size() + 1), length = below(64);
            switch (below(4)) {
                case 0:
                    text.insert(at, other.substr(from, length));
                    break;
                case 1:
                    text.replace(at, length, 1, static_cast<char>(random()));
                    break;
                case 2:
                    if (at < text.size()) text[at] = static_cast<char>(text[at] ^ 1 << below(8));
                    break;
                default:
                    text = text.substr(0, at) + other.substr(from, 1 << 16);
            }
        }
        run(text);
    }
    printf("%zu inputs and %ld mutations\n", corpus.size(), count);
    return 0;
}
