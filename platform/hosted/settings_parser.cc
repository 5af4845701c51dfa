// SPDX-License-Identifier: MIT

#include "platform/hosted/settings_parser.h"

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <new>

namespace hosted {

namespace {

// Counts in the tree are int32_t.
constexpr size_t kMostItems = std::numeric_limits<int32_t>::max();

// An array that grows, or refuses and stays as it is.
template <class T>
class table {
 public:
    table() = default;
    table(const table &) = delete;
    table &operator=(const table &) = delete;
    ~table() { delete[] items_; }

    bool push(const T &item) {
        if (count_ == capacity_ && !grow()) return false;
        items_[count_++] = item;
        return true;
    }

    T &operator[](size_t index) { return items_[index]; }
    T &last() { return items_[count_ - 1]; }
    size_t size() const { return count_; }
    void cut(size_t count) { count_ = count; }

    T *release() {
        T *items = items_;
        items_ = nullptr;
        count_ = capacity_ = 0;
        return items;
    }

 private:
    bool grow() {
        const size_t capacity = std::min(kMostItems, std::max<size_t>(16, capacity_ * 2));
        T *items = capacity == count_ ? nullptr : new (std::nothrow) T[capacity];
        if (items == nullptr) return false;
        std::copy(items_, items_ + count_, items);
        delete[] items_;
        items_ = items;
        capacity_ = capacity;
        return true;
    }

    T *items_ = nullptr;
    size_t count_ = 0;
    size_t capacity_ = 0;
};

// A parameter while the arrays still move.
struct draft {
    const char *name;
    size_t first_value;  // in `values_`
    size_t value_count;
    size_t first_child;  // in `placed_`
    size_t child_count;
};

enum class token { kWord, kOpen, kClose, kEnd, kFileEnd, kFault };

class parser {
 public:
    parser(const char *text, size_t length, settings_fault *fault)
        : at_(text), end_(text + length), line_start_(text), fault_(fault) {}
    parser(const parser &) = delete;
    parser &operator=(const parser &) = delete;
    ~parser() { delete[] words_; }

    parsed_settings *parse();

 private:
    struct block {
        size_t first;  // of its parameters in `waiting_`; its owner stands just before them
        size_t line;   // of its '{'
    };

    token next();
    token bare_word();
    token quoted_word();
    bool escape();
    bool skip_blanks();
    bool close(size_t first);
    parsed_settings *finish();

    bool at_bare() const {
        const auto byte = static_cast<unsigned char>(*at_);
        return byte > ' ' && byte != 127 && strchr("{};#\"\\", byte) == nullptr;
    }

    size_t column(const char *where) const;
    token fail(const char *where, const char *expected, ...) __attribute__((format(printf, 3, 4)));
    parsed_settings *out_of_memory() {
        *fault_ = {0, 0, "more memory"};
        return nullptr;
    }

    const char *at_;
    const char *const end_;
    const char *line_start_;
    size_t line_ = 1;
    settings_fault *const fault_;

    // Every word with its end fits: in the text each is followed by another character, or is the last.
    char *words_ = nullptr;
    char *free_word_ = nullptr;
    const char *word_ = nullptr;  // the latest

    table<const char *> values_;
    // Parameters of the blocks that are still open, outermost first. When a block closes, its parameters
    // leave from the end for `placed_`, where those of one block lie side by side and nothing moves them
    // relative to each other.
    table<draft> waiting_;
    table<draft> placed_;
    table<block> blocks_;
};

size_t parser::column(const char *where) const {
    size_t column = 1;
    for (const char *byte = line_start_; byte < where; ++byte)
        column += (*byte & 0xc0) != 0x80;  // bytes inside a UTF-8 sequence are no characters of their own
    return column;
}

token parser::fail(const char *where, const char *expected, ...) {
    fault_->line = line_;
    fault_->column = column(where);
    va_list arguments;
    va_start(arguments, expected);
    vsnprintf(fault_->expected, sizeof fault_->expected, expected, arguments);
    va_end(arguments);
    return token::kFault;
}

// Blanks, and a comment. False when there is a byte 0 in the comment.
bool parser::skip_blanks() {
    while (at_ < end_ && (*at_ == ' ' || *at_ == '\t'))
        ++at_;
    if (at_ == end_ || *at_ != '#') return true;
    while (at_ < end_ && *at_ != '\n') {
        if (*at_ == '\0') {
            fail(at_, "text, not a byte of 0");
            return false;
        }
        ++at_;
    }
    return true;
}

token parser::bare_word() {
    word_ = free_word_;
    while (at_ < end_ && at_bare())
        *free_word_++ = *at_++;
    *free_word_++ = '\0';
    if (at_ < end_ && *at_ == '"') return fail(at_, "a blank in front of the quote");
    return token::kWord;
}

bool parser::escape() {
    const char *where = at_++;
    switch (at_ < end_ ? *at_++ : '\0') {
        case '"':
            *free_word_++ = '"';
            return true;
        case '\\':
            *free_word_++ = '\\';
            return true;
        case 'n':
            *free_word_++ = '\n';
            return true;
        case 't':
            *free_word_++ = '\t';
            return true;
        case 'x':
            break;
        default:
            fail(where, "one of \\\" \\\\ \\n \\t \\xHH");
            return false;
    }
    int value = 0, digits = 0;
    for (; digits < 2 && at_ < end_; ++digits, ++at_) {
        if (*at_ >= '0' && *at_ <= '9') {
            value = value * 16 + *at_ - '0';
        } else if ((*at_ | 0x20) >= 'a' && (*at_ | 0x20) <= 'f') {
            value = value * 16 + (*at_ | 0x20) - 'a' + 10;
        } else {
            break;
        }
    }
    if (digits < 2 || value == 0) {
        fail(where, "\\x with two hexadecimal digits that aren't both 0");
        return false;
    }
    *free_word_++ = static_cast<char>(value);
    return true;
}

token parser::quoted_word() {
    const char *opened = at_++;
    word_ = free_word_;
    while (at_ < end_ && *at_ != '"') {
        if (*at_ == '\\') {
            if (!escape()) return token::kFault;
            continue;
        }
        if (*at_ == '\n' || *at_ == '\r') break;
        const auto byte = static_cast<unsigned char>(*at_);
        if ((byte < ' ' && byte != '\t') || byte == 127)
            return fail(at_, "\\x%02x for this control character", byte);
        *free_word_++ = *at_++;
    }
    if (at_ == end_ || *at_ != '"') {
        return fail(at_, "'\"' to end the string that begins in column %lu",
                    static_cast<unsigned long>(column(opened)));
    }
    ++at_;
    *free_word_++ = '\0';
    if (at_ < end_ && (at_bare() || *at_ == '"' || *at_ == '\\'))
        return fail(at_, "a blank behind the quote");
    return token::kWord;
}

token parser::next() {
    if (!skip_blanks()) return token::kFault;
    if (at_ == end_) return token::kFileEnd;
    if (at_bare()) return bare_word();
    switch (*at_) {
        case '"':
            return quoted_word();
        case '{':
            ++at_;
            return token::kOpen;
        case '}':
            ++at_;
            return token::kClose;
        case ';':
            ++at_;
            return token::kEnd;
        case '\\':
            return fail(at_, "quotes around a word with a backslash");
        case '\r':
            if (at_ + 1 < end_ && at_[1] != '\n')
                return fail(at_ + 1, "a newline behind the carriage return");
            ++at_;
            return next();
        case '\n':
            ++at_;
            ++line_;
            line_start_ = at_;
            return token::kEnd;
        case '\0':
            return fail(at_, "text, not a byte of 0");
        default:
            return fail(at_, "text, not a control character");
    }
}

parsed_settings *parser::parse() {
    const size_t length = static_cast<size_t>(end_ - at_);
    words_ = free_word_ = new (std::nothrow) char[length + 1];
    if (words_ == nullptr) return out_of_memory();
    if (length >= 3 && memcmp(at_, "\xef\xbb\xbf", 3) == 0) line_start_ = at_ += 3;

    bool in_parameter = false;
    for (;;) {
        switch (next()) {
            case token::kWord:
                if (in_parameter) {
                    if (!values_.push(word_)) return out_of_memory();
                    ++waiting_.last().value_count;
                } else {
                    if (!waiting_.push({word_, values_.size(), 0, 0, 0})) return out_of_memory();
                    in_parameter = true;
                }
                break;
            case token::kOpen:
                if (!in_parameter) {
                    fail(at_ - 1, "a name in front of '{', on the same line");
                    return nullptr;
                }
                if (blocks_.size() == kSettingsDepth) {
                    fail(at_ - 1, "at most %lu blocks inside one another",
                         static_cast<unsigned long>(kSettingsDepth));
                    return nullptr;
                }
                if (!blocks_.push({waiting_.size(), line_})) return out_of_memory();
                in_parameter = false;
                break;
            case token::kClose:
                if (blocks_.size() == 0) {
                    fail(at_ - 1, "a name or the end of the file: no block is open");
                    return nullptr;
                }
                if (!close(blocks_.last().first)) return out_of_memory();
                blocks_.cut(blocks_.size() - 1);
                in_parameter = false;
                break;
            case token::kEnd:
                in_parameter = false;
                break;
            case token::kFileEnd:
                if (blocks_.size() != 0) {
                    fail(at_, "'}' to end the block that begins in line %lu",
                         static_cast<unsigned long>(blocks_.last().line));
                    return nullptr;
                }
                return finish();
            case token::kFault:
                return nullptr;
        }
    }
}

// Moves the parameters of the innermost block to their place.
bool parser::close(size_t first) {
    draft &owner = waiting_[first - 1];
    owner.first_child = placed_.size();
    owner.child_count = waiting_.size() - first;
    for (size_t i = first; i < waiting_.size(); ++i) {
        if (!placed_.push(waiting_[i])) return false;
    }
    waiting_.cut(first);
    return true;
}

parsed_settings *parser::finish() {
    const size_t below = placed_.size(), count = below + waiting_.size();
    auto *parsed = new (std::nothrow) parsed_settings{};
    auto *parameters = new (std::nothrow) settings_parameter[count];
    if (parsed == nullptr || parameters == nullptr || count > kMostItems) {
        delete parsed;
        delete[] parameters;
        return out_of_memory();
    }
    parsed->words = words_;
    words_ = nullptr;
    parsed->values = values_.release();
    parsed->parameters = parameters;
    parsed->tree = {static_cast<int32_t>(waiting_.size()), parameters + below};
    for (size_t i = 0; i < count; ++i) {
        const draft &from = i < below ? placed_[i] : waiting_[i - below];
        parameters[i] = {from.name, static_cast<int32_t>(from.value_count),
                         from.value_count == 0 ? nullptr : parsed->values + from.first_value,
                         static_cast<int32_t>(from.child_count),
                         from.child_count == 0 ? nullptr : parameters + from.first_child};
    }
    return parsed;
}

}  // namespace

parsed_settings *parse_settings(const char *text, size_t length, settings_fault *fault) {
    return parser(text, length, fault).parse();
}

void delete_parsed_settings(parsed_settings *parsed) {
    if (parsed == nullptr) return;
    delete[] parsed->parameters;
    delete[] parsed->values;
    delete[] parsed->words;
    delete parsed;
}

}  // namespace hosted
