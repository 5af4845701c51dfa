// SPDX-License-Identifier: MIT
//
// A fuzz target without a fuzzer: the inputs of a corpus, and as many mutations of them as asked for, the
// same ones at every run.
//
//     TARGET CORPUS-DIRECTORY DICTIONARY COUNT [SEED]     TARGET FILE...
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

namespace {

constexpr size_t kLongest = 1 << 16;

std::string gInput;

void run(const std::string &input) {
    gInput = input;
    // Of its exact size and on the heap, so that a sanitizer sees a byte too far.
    const std::vector<uint8_t> bytes(input.begin(), input.end());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

void keep_input(int) {
    if (FILE *file = fopen("fuzz-input", "wb")) {
        fwrite(gInput.data(), 1, gInput.size(), file);
        fclose(file);
        fputs("the input is in the file fuzz-input\n", stderr);
    }
    std::_Exit(1);
}

std::string read_file(const std::filesystem::path &path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        fprintf(stderr, "can't read %s\n", path.c_str());
        exit(2);
    }
    return {std::istreambuf_iterator<char>(file), {}};
}

// The words in quotes of a dictionary, with its escapes \" \\ \xHH.
std::vector<std::string> read_dictionary(const std::filesystem::path &path) {
    const std::string text = read_file(path);
    std::vector<std::string> words;
    for (size_t at = 0; at < text.size(); at = std::min(text.find('\n', at), text.size() - 1) + 1) {
        if (text[at] == '#') continue;
        size_t i = text.find('"', at);
        if (i >= text.find('\n', at)) continue;
        std::string word;
        for (++i; i < text.size() && text[i] != '"'; ++i) {
            if (text[i] == '\\' && text[i + 1] == 'x') {
                word += static_cast<char>(std::stoi(text.substr(i + 2, 2), nullptr, 16));
                i += 3;
            } else {
                word += text[i] == '\\' ? text[++i] : text[i];
            }
        }
        words.push_back(word);
    }
    return words;
}

std::string mutate(std::string text, const std::vector<std::string> &corpus,
                   const std::vector<std::string> &words, std::mt19937 &random) {
    const auto below = [&random](size_t count) { return count == 0 ? 0 : random() % count; };
    for (size_t left = 1 + below(6); left > 0; --left) {
        const size_t at = below(text.size() + 1), length = below(std::min<size_t>(text.size() - at, 64) + 1);
        switch (below(6)) {
            case 0:
                text.insert(at, words[below(words.size())]);
                break;
            case 1:
                text.insert(at, 1, static_cast<char>(random()));
                break;
            case 2:
                text.erase(at, length);
                break;
            case 3:
                text.insert(below(text.size() + 1), text.substr(at, length));
                break;
            case 4:
                if (at < text.size()) text[at] = static_cast<char>(text[at] ^ 1 << below(8));
                break;
            default: {
                const std::string &other = corpus[below(corpus.size())];
                text = text.substr(0, at) + other.substr(below(other.size() + 1));
            }
        }
    }
    if (text.size() > kLongest) text.resize(kLongest);
    return text;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2) return 2;
    signal(SIGABRT, keep_input);
    if (!std::filesystem::is_directory(argv[1])) {
        for (int i = 1; i < argc; ++i)
            run(read_file(argv[i]));
        return 0;
    }
    if (argc < 4) return 2;
    std::vector<std::filesystem::path> files;
    for (const auto &entry : std::filesystem::directory_iterator(argv[1]))
        files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    std::vector<std::string> corpus;
    for (const auto &file : files)
        corpus.push_back(read_file(file));
    const std::vector<std::string> words = read_dictionary(argv[2]);
    if (corpus.empty() || words.empty()) {
        fprintf(stderr, "no inputs in %s or no words in %s\n", argv[1], argv[2]);
        return 2;
    }
    for (std::string &input : corpus) {
        run(input);
        if (input.size() > kLongest) input.resize(kLongest);
    }
    const unsigned long count = strtoul(argv[3], nullptr, 10);
    std::mt19937 random(argc > 4 ? static_cast<uint32_t>(strtoul(argv[4], nullptr, 10)) : 1);
    for (unsigned long i = 0; i < count; ++i)
        run(mutate(corpus[random() % corpus.size()], corpus, words, random));
    printf("%zu inputs and %lu mutations\n", corpus.size(), count);
    return 0;
}
