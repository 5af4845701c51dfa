// SPDX-License-Identifier: MIT
#include "host/line_source.h"

#include <fcntl.h>
#include <unistd.h>
#include <wchar.h>

#include <cerrno>
#include <cstdlib>

namespace {

constexpr int kHistoryLines = 200;

char *prompt_text(EditLine *) {
    static char text[] = "(zarn) ";
    return text;
}

// Ends the line as an empty one.
unsigned char cancel_line(EditLine *editor, wint_t) {
    const LineInfo *line = el_line(editor);
    int length = static_cast<int>(line->lastchar - line->buffer);
    el_cursor(editor, static_cast<int>(line->lastchar - line->cursor));
    el_deletestr(editor, length);
    el_insertstr(editor, "\n");
    FILE *terminal;
    el_get(editor, EL_GETFP, 1, &terminal);
    fputs("^C\n", terminal);
    return CC_NEWLINE;
}

// The keys that raise signals are ordinary ones until end_lines: a signal would meet a thread that stands
// still. The editor alone is too late for that: it shows its first prompt before it sets the terminal.
void take_signal_keys(line_source *source) {
    termios quiet;
    if (source->takes_signal_keys || tcgetattr(fileno(source->terminal), &source->before) != 0) return;
    quiet = source->before;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ISIG);
    source->takes_signal_keys = tcsetattr(fileno(source->terminal), TCSADRAIN, &quiet) == 0;
}

// Not before the first line is wanted: a terminal of an unknown kind is told of then, and no sooner.
bool make_editor(line_source *source) {
    source->history = history_init();
    source->editor = el_init("zarn", source->terminal, source->terminal, source->terminal);
    if (source->history == nullptr || source->editor == nullptr) return false;
    HistEvent event;
    history(source->history, &event, H_SETSIZE, kHistoryLines);
    el_set(source->editor, EL_PROMPT, prompt_text);
    el_set(source->editor, EL_EDITOR, "emacs");
    el_set(source->editor, EL_HIST, history, source->history);
    for (const char *mode : {"-d", "-x"})  // while a line is read, and between two
        el_set(source->editor, EL_SETTY, mode, "-isig", nullptr);
    // The other form of this call keeps copies of the texts for good.
    el_wset(source->editor, EL_ADDFN, L"cancel-line", L"Starts the line anew", cancel_line);
    el_set(source->editor, EL_BIND, "^C", "cancel-line", nullptr);
    return true;
}

}  // namespace

bool open_lines(line_source *source, bool script) {
    *source = {};
    source->output = stdout;
    if (isatty(STDIN_FILENO) != 1) return script;
    int file = open("/proc/self/fd/0", O_RDWR | O_NOCTTY | O_CLOEXEC);
    source->terminal = file < 0 ? nullptr : fdopen(file, "r+");
    if (source->terminal == nullptr) {
        if (file >= 0) close(file);
        return false;
    }
    source->output = source->terminal;
    return true;
}

void close_lines(line_source *source) {
    if (source->editor != nullptr) {
        el_end(source->editor);
        tcsetattr(fileno(source->terminal), TCSADRAIN, &source->before);
    }
    if (source->history != nullptr) history_end(source->history);
    if (source->terminal != nullptr) fclose(source->terminal);
    *source = {};
}

void end_lines(line_source *source) {
    fflush(source->output);
    if (source->takes_signal_keys) tcsetattr(fileno(source->terminal), TCSADRAIN, &source->before);
    source->takes_signal_keys = false;
}

bool read_line(line_source *source, std::string *line) {
    line->clear();
    if (source->terminal == nullptr) {
        int byte;
        while ((byte = getc(stdin)) != EOF && byte != '\n')
            *line += static_cast<char>(byte);
        return byte != EOF || !line->empty();
    }
    take_signal_keys(source);
    if (source->editor == nullptr && !make_editor(source)) return false;
    const char *text;
    int length;
    do
        errno = 0;
    while ((text = el_gets(source->editor, &length)) == nullptr && length < 0 && errno == EINTR);
    if (text == nullptr) return false;
    *line = text;
    if (!line->empty() && line->back() == '\n') line->pop_back();
    HistEvent event;
    if (!line->empty()) history(source->history, &event, H_ENTER, line->c_str());
    return true;
}
