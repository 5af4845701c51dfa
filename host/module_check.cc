// SPDX-License-Identifier: MIT

#include "host/module_check.h"

#include <elf.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <set>
#include <string_view>

namespace {

constexpr std::string_view kPrefix = "network/";  // the roster looks for every module there
constexpr size_t kLongestName = 127;
constexpr int kMostRecords = 64;
constexpr unsigned kMostSegments = 64;
constexpr size_t kMostNamed = 8;  // symbols that a verdict names

// What platform/kern.h, platform/skiplist.h and platform/libc.h declare.
constexpr std::string_view kSupplied[] = {
#include "kernel_symbols.inc"
    // A compiler may call these on its own account, so a kernel has them all.
    "memcmp",
    "memmove",
};

struct elf32 {
    using header = Elf32_Ehdr;
    using segment = Elf32_Phdr;
    using dynamic = Elf32_Dyn;
    using symbol = Elf32_Sym;
    using word = uint32_t;
    using relocation = Elf32_Rel;
    using relocation_with_addend = Elf32_Rela;
    static constexpr const char *kTarget = "i386";
    static constexpr unsigned kMachine = EM_386, kRelative = R_386_RELATIVE, kAddress = R_386_32;
    static constexpr int kSymbolShift = 8;
};

struct elf64 {
    using header = Elf64_Ehdr;
    using segment = Elf64_Phdr;
    using dynamic = Elf64_Dyn;
    using symbol = Elf64_Sym;
    using word = uint64_t;
    using relocation = Elf64_Rel;
    using relocation_with_addend = Elf64_Rela;
    static constexpr const char *kTarget = "x86-64";
    static constexpr unsigned kMachine = EM_X86_64, kRelative = R_X86_64_RELATIVE, kAddress = R_X86_64_64;
    static constexpr int kSymbolShift = 32;
};

// One look at one file. Addresses are those of the file, before the linker has placed it. Nothing that the
// file says is believed: every read goes through `find`, which knows where the bytes end, and no table is
// taken to be longer than the whole file.
template <class elf>
class inspection {
 public:
    inspection(const uint8_t *bytes, size_t size, const std::string &stem, module_verdict *verdict)
        : bytes_(bytes), size_(size), stem_(stem), verdict_(verdict) {}

    void run() {
        typename elf::header header;
        if (!read_file(0, &header)) return fault("it ends inside its header");
        if (header.e_type != ET_DYN) return fault("it is no shared object");
        if (header.e_machine != elf::kMachine) return fault("it is for another machine than i386 and x86-64");
        verdict_->target = elf::kTarget;
        if (!read_segments(header)) return;
        if (!read_dynamic()) return;
        read_relocations(tables_.rela, tables_.rela_bytes, true);
        read_relocations(tables_.rel, tables_.rel_bytes, false);
        read_relocations(tables_.plt, tables_.plt_bytes, tables_.plt_has_addends);
        check_records();
        check_undefined();
    }

 private:
    using word = typename elf::word;
    static constexpr word kWord = sizeof(word);

    struct patch {
        word place;
        uint32_t type;
        uint32_t symbol;
        word addend;
    };

    // What a word of the module will hold once the linker is done.
    struct pointer {
        enum { kNull, kInside, kOutside, kBroken } kind;
        word address;  // of kInside
    };

    void fault(const std::string &text) { verdict_->faults.push_back(text); }

    // `length` bytes of the file, or null.
    const uint8_t *find(uint64_t offset, uint64_t length) const {
        return offset <= size_ && size_ - offset >= length ? bytes_ + offset : nullptr;
    }

    template <class T>
    bool read_file(uint64_t offset, T *out) const {
        const uint8_t *found = find(offset, sizeof(T));
        if (found != nullptr) memcpy(out, found, sizeof(T));
        return found != nullptr;
    }

    const typename elf::segment *find_segment(word address) const {
        for (const auto &segment : loads_)
            if (address >= segment.p_vaddr && address - segment.p_vaddr < segment.p_memsz) return &segment;
        return nullptr;
    }

    // What the file has from this address on, and how much.
    const uint8_t *find_address(word address, size_t *length) const {
        const auto *segment = find_segment(address);
        if (segment == nullptr || address - segment->p_vaddr >= segment->p_filesz) return nullptr;
        const word left = segment->p_filesz - (address - segment->p_vaddr);
        *length = static_cast<size_t>(left);
        return find(uint64_t{segment->p_offset} + (address - segment->p_vaddr), left);
    }

    template <class T>
    bool read(word address, T *out) const {
        size_t length;
        const uint8_t *found = find_address(address, &length);
        if (found == nullptr || length < sizeof(T)) return false;
        memcpy(out, found, sizeof(T));
        return true;
    }

    std::optional<std::string_view> read_text(word address) const {
        size_t length;
        const auto *found = reinterpret_cast<const char *>(find_address(address, &length));
        if (found == nullptr || memchr(found, '\0', length) == nullptr) return std::nullopt;
        return std::string_view(found);
    }

    bool read_segments(const typename elf::header &header) {
        if (header.e_phnum > kMostSegments) {
            fault("it has more than " + std::to_string(kMostSegments) + " segments");
            return false;
        }
        for (unsigned i = 0; i < header.e_phnum; ++i) {
            typename elf::segment segment;
            if (header.e_phentsize != sizeof segment ||
                !read_file(uint64_t{header.e_phoff} + uint64_t{i} * sizeof segment, &segment)) {
                fault("it ends inside its program headers");
                return false;
            }
            if (segment.p_type == PT_LOAD) loads_.push_back(segment);
            if (segment.p_type == PT_DYNAMIC) dynamic_ = segment;
        }
        return true;
    }

    bool read_dynamic() {
        word gnu_hash = 0, hash = 0;
        for (word at = 0; at < dynamic_.p_memsz; at += sizeof(typename elf::dynamic)) {
            typename elf::dynamic entry;
            if (!read(dynamic_.p_vaddr + at, &entry) || entry.d_tag == DT_NULL) break;
            const word value = entry.d_un.d_val;
            switch (entry.d_tag) {
                case DT_SYMTAB:
                    tables_.symbols = value;
                    break;
                case DT_STRTAB:
                    tables_.texts = value;
                    break;
                case DT_HASH:
                    hash = value;
                    break;
                case DT_GNU_HASH:
                    gnu_hash = value;
                    break;
                case DT_RELA:
                    tables_.rela = value;
                    break;
                case DT_RELASZ:
                    tables_.rela_bytes = value;
                    break;
                case DT_REL:
                    tables_.rel = value;
                    break;
                case DT_RELSZ:
                    tables_.rel_bytes = value;
                    break;
                case DT_JMPREL:
                    tables_.plt = value;
                    break;
                case DT_PLTRELSZ:
                    tables_.plt_bytes = value;
                    break;
                case DT_PLTREL:
                    tables_.plt_has_addends = value == DT_RELA;
                    break;
                case DT_RELR:
                    tables_.relr = value;
                    break;
                case DT_RELRSZ:
                    tables_.relr_bytes = value;
                    break;
            }
        }
        if (tables_.symbols == 0 || tables_.texts == 0 || (hash == 0 && gnu_hash == 0)) {
            fault("it has no symbols for the linker");
            return false;
        }
        symbol_count_ = std::min<uint64_t>(hash != 0 ? count_symbols(hash) : count_gnu_symbols(gnu_hash),
                                           size_ / sizeof(typename elf::symbol));
        return true;
    }

    uint64_t count_symbols(word hash) const {
        uint32_t chains = 0;
        return read(hash + 4, &chains) ? chains : 0;
    }

    // The table doesn't tell: the end is where the last chain ends.
    uint64_t count_gnu_symbols(word hash) const {
        struct {
            uint32_t buckets, first, bloom_words, bloom_shift;
        } head;
        if (!read(hash, &head)) return 0;
        const word buckets = hash + word{sizeof head} + word{head.bloom_words} * kWord;
        const word chains = buckets + word{head.buckets} * 4;
        uint64_t last = 0;
        uint32_t bucket = 0, chain = 0;
        for (uint32_t i = 0; i < head.buckets && read(buckets + word{i} * 4, &bucket); ++i)
            last = std::max<uint64_t>(last, bucket);
        if (last < head.first) return head.first;
        while (last < size_ && read(chains + static_cast<word>(last - head.first) * 4, &chain) &&
               (chain & 1) == 0)
            ++last;
        return last + 1;
    }

    bool read_symbol(uint32_t index, typename elf::symbol *symbol) const {
        return read(tables_.symbols + word{index} * static_cast<word>(sizeof *symbol), symbol);
    }

    std::optional<typename elf::symbol> find_symbol(std::string_view name) const {
        typename elf::symbol symbol;
        for (uint32_t i = 1; i < symbol_count_ && read_symbol(i, &symbol); ++i) {
            const int binding = symbol.st_info >> 4;
            if (symbol.st_shndx != SHN_UNDEF && (binding == STB_GLOBAL || binding == STB_WEAK) &&
                read_text(tables_.texts + symbol.st_name) == name)
                return symbol;
        }
        return std::nullopt;
    }

    void read_relocations(word table, word bytes, bool with_addends) {
        if (table == 0) return;
        bytes = static_cast<word>(std::min<uint64_t>(bytes, size_));
        if (with_addends) {
            read_relocations<typename elf::relocation_with_addend>(table, bytes);
        } else {
            read_relocations<typename elf::relocation>(table, bytes);
        }
    }

    template <class T>
    void read_relocations(word table, word bytes) {
        T entry;
        for (word at = 0; bytes - at >= sizeof entry && read(table + at, &entry); at += sizeof entry) {
            word addend = 0;
            if constexpr (requires { entry.r_addend; }) {
                addend = static_cast<word>(entry.r_addend);
            } else {
                read(entry.r_offset, &addend);  // it stands where it will be added to
            }
            const uint64_t info = entry.r_info, type = info & ((uint64_t{1} << elf::kSymbolShift) - 1);
            patches_.push_back({entry.r_offset, static_cast<uint32_t>(type),
                                static_cast<uint32_t>(info >> elf::kSymbolShift), addend});
        }
    }

    // Whether the packed table of relative relocations has this place.
    bool in_packed_table(word place) const {
        word next = 0, entry = 0;
        for (word at = 0;
             tables_.relr != 0 && tables_.relr_bytes - at >= kWord && read(tables_.relr + at, &entry);
             at += kWord) {
            if ((entry & 1) == 0) {
                if (entry == place) return true;
                next = entry + kWord;
                continue;
            }
            constexpr word kPlaces = 8 * kWord - 1;
            if (place >= next && (place - next) / kWord < kPlaces && (place - next) % kWord == 0 &&
                (entry >> ((place - next) / kWord + 1) & 1) != 0)
                return true;
            next += kPlaces * kWord;
        }
        return false;
    }

    pointer read_pointer(word place) const {
        word value = 0;
        if (!read(place, &value)) {  // memory that the file doesn't fill starts as zeros
            const auto *segment = find_segment(place);
            if (segment == nullptr || place - segment->p_vaddr < segment->p_filesz)
                return {pointer::kBroken, 0};
        }
        for (const patch &one : patches_) {
            if (one.place != place) continue;
            if (one.type == elf::kRelative) return {pointer::kInside, one.addend};
            typename elf::symbol symbol;
            if (one.type != elf::kAddress || !read_symbol(one.symbol, &symbol)) return {pointer::kBroken, 0};
            if (symbol.st_shndx != SHN_UNDEF)
                return {pointer::kInside, static_cast<word>(symbol.st_value + one.addend)};
            return {symbol.st_info >> 4 == STB_WEAK ? pointer::kNull : pointer::kOutside, 0};
        }
        if (value == 0) return {pointer::kNull, 0};
        return {in_packed_table(place) ? pointer::kInside : pointer::kBroken, value};
    }

    void check_records() {
        const auto list = find_symbol("modules");
        if (!list) return fault("it exports no list \"modules\"");
        for (int i = 0; i <= kMostRecords; ++i) {
            const pointer record =
                read_pointer(static_cast<word>(list->st_value + static_cast<word>(i) * kWord));
            if (record.kind == pointer::kNull) {
                if (i == 0) return fault("its list \"modules\" is empty");
                return check_file_name();
            }
            if (record.kind != pointer::kInside || find_segment(record.address) == nullptr)
                return fault("entry " + std::to_string(i) +
                             " of its list \"modules\" is no record of this file");
            check_record(i, record.address);
        }
        fault("its list \"modules\" doesn't end");
    }

    void check_record(int index, word record) {
        const pointer name_pointer = read_pointer(record);
        const auto text =
            name_pointer.kind == pointer::kInside ? read_text(name_pointer.address) : std::nullopt;
        const auto is_graphic = [](char character) { return character > ' ' && character < 127; };
        if (!text || text->empty() || text->size() > kLongestName ||
            !std::all_of(text->begin(), text->end(), is_graphic))
            return fault("the name of record " + std::to_string(index) +
                         " is no text of 1 to 127 characters");
        const std::string name(*text);
        verdict_->names.push_back(name);
        if (text->substr(0, kPrefix.size()) != kPrefix) fault(name + ": a name begins with \"network/\"");

        // The head is name, flags and std_ops; on both widths each takes a word.
        check_function(name, "std_ops", record + 2 * kWord);
        if (name == "network/zarn_notify") return;  // takes notifications, and is no protocol
        check_function(name, "init_protocol", record + 3 * kWord);
        check_function(name, "uninit_protocol", record + 4 * kWord);
    }

    void check_function(const std::string &name, const char *slot, word place) {
        const pointer function = read_pointer(place);
        if (function.kind == pointer::kOutside) return;
        if (function.kind == pointer::kNull) return fault(name + ": " + slot + " is not set");
        const auto *segment = function.kind == pointer::kInside ? find_segment(function.address) : nullptr;
        if (segment == nullptr || (segment->p_flags & PF_X) == 0)
            fault(name + ": " + slot + " is no function");
    }

    void check_file_name() {
        const std::string ending = "/" + stem_;
        for (const std::string &name : verdict_->names) {
            if (name.size() >= ending.size() &&
                name.compare(name.size() - ending.size(), ending.size(), ending) == 0)
                return;
        }
        if (!verdict_->names.empty())
            fault("the loader looks for a record network/" + stem_ +
                  " in a file of this name, and it has none");
    }

    void check_undefined() {
        std::set<uint32_t> used;
        std::set<std::string_view> missing;
        for (const patch &one : patches_) {
            typename elf::symbol symbol;
            if (one.symbol == 0 || !used.insert(one.symbol).second) continue;
            const bool readable = read_symbol(one.symbol, &symbol);
            const auto name = readable ? read_text(tables_.texts + symbol.st_name) : std::nullopt;
            if (!name) return fault("its relocations name symbols that it doesn't have");
            if (symbol.st_shndx == SHN_UNDEF && symbol.st_info >> 4 != STB_WEAK &&
                std::find(std::begin(kSupplied), std::end(kSupplied), *name) == std::end(kSupplied))
                missing.insert(*name);
        }
        if (missing.empty()) return;
        std::string text = "no kernel supplies";
        size_t named = 0;
        for (const std::string_view name : missing) {
            if (named == kMostNamed) break;
            text.append(named++ == 0 ? " " : ", ").append(name);
        }
        if (missing.size() > named) text += " and " + std::to_string(missing.size() - named) + " more";
        fault(text);
    }

    const uint8_t *const bytes_;
    const size_t size_;
    const std::string stem_;
    module_verdict *const verdict_;

    std::vector<typename elf::segment> loads_;
    typename elf::segment dynamic_ = {};
    struct {
        word symbols, texts, rela, rela_bytes, rel, rel_bytes, plt, plt_bytes, relr, relr_bytes;
        bool plt_has_addends;
    } tables_ = {};
    uint64_t symbol_count_ = 0;
    std::vector<patch> patches_;
};

}  // namespace

module_verdict check_module(const void *bytes, size_t size, const std::string &stem) {
    module_verdict verdict;
    const auto *file = static_cast<const uint8_t *>(bytes);
    if (size < EI_NIDENT || memcmp(file, ELFMAG, SELFMAG) != 0) {
        verdict.faults.push_back("it is no ELF file");
    } else if (file[EI_DATA] != ELFDATA2LSB) {
        verdict.faults.push_back("it is for another machine than i386 and x86-64");
    } else if (file[EI_CLASS] == ELFCLASS32) {
        inspection<elf32>(file, size, stem, &verdict).run();
    } else {
        inspection<elf64>(file, size, stem, &verdict).run();
    }
    return verdict;
}
