#include "core/log.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

std::atomic<int32_t> log_level{LOG_LEVEL_DEFAULT};

namespace
{

constexpr char console_path[] = "/dev/console";

constexpr char echo_head[] = "echo \"";
constexpr char echo_tail[] = "\" > /dev/console";

// Inside double quotes the shell drops a backslash that stands before one of
// these, and a backslash-newline pair entirely. Every other byte, a lone
// quote, "$" and "`" included, is taken literally here: text from the LAN is
// printed, never evaluated.
bool dquote_escapable(char c)
{
    return c == '$' || c == '`' || c == '"' || c == '\\' || c == '\n';
}

size_t unescape_dquoted(char *dst, const char *src, size_t len)
{
    size_t n = 0;
    for (size_t i = 0; i < len; i++) {
        if (src[i] == '\\' && i + 1 < len && dquote_escapable(src[i + 1])) {
            i++;
            if (src[i] == '\n')
                continue;
        }
        dst[n++] = src[i];
    }
    return n;
}

// Writes all of `len` bytes; a short write on a pipe or console is finished
// off, an error or a signal gives up quietly: logging never fails the caller.
void write_all(int fd, const char *text, size_t len)
{
    while (len > 0) {
        ssize_t n = write(fd, text, len);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        text += n;
        len -= static_cast<size_t>(n);
    }
}

// A line longer than the stack buffer is printed from the heap, still whole.
constexpr size_t ERROR_LINE_STACK = 1024;

log_stamp take_stamp()
{
    log_stamp s{};
    struct timeval tv {
    };
    gettimeofday(&tv, nullptr);
    time_t sec = tv.tv_sec;
    localtime_r(&sec, &s.tm);
    s.msec = static_cast<int>(tv.tv_usec / 1000);
    s.tid = static_cast<unsigned long>(pthread_self());
    return s;
}

// One write, like the shell's echo: the line appears whole or not at all
// as far as we can make it. Failures are ignored: logging never fails the
// caller.
void emit(const console_line &line)
{
    int fd = 1;
    if (line.to_console) {
        // ">" opens for writing, creating and truncating; on a terminal the
        // truncation is a no-op.
        fd = open(console_path, O_WRONLY | O_CREAT | O_TRUNC | O_NOCTTY | O_CLOEXEC, 0666);
        if (fd < 0)
            return;
    }
    write_all(fd, line.text, line.len);
    if (line.to_console)
        close(fd);
}

} // namespace

void render_echo(console_line &out, const char *cmd, size_t cmd_len, size_t text_begin,
                 size_t full_len) noexcept
{
    // full_len is the length the command would have had without the cut.
    size_t text_end = full_len - (sizeof(echo_tail) - 1);
    // A NUL in the message ends the command as early as the cut does.
    out.to_console = full_len <= LOG_LINE_BUF - 1 && cmd_len == full_len;
    // When the cut falls inside the message, the text runs up to the cut;
    // when it falls inside the closing quote and redirection, the message is
    // whole and only the redirection is lost.
    if (text_end > cmd_len)
        text_end = cmd_len;
    size_t n = unescape_dquoted(out.text, cmd + text_begin, text_end - text_begin);
    out.text[n++] = '\n';
    out.text[n] = '\0';
    out.len = n;
}

void format_console_line(console_line &out, const log_stamp &stamp, int level, const char *func, int line,
                         const char *fmt, va_list ap) noexcept
{
    char cmd[LOG_LINE_BUF] = {};
    int head = std::snprintf(cmd, sizeof(cmd), "%s%04d-%02d-%02d %02d:%02d:%02d.%03d|level:%d| %s:%d|%lu|- ",
                             echo_head, stamp.tm.tm_year + 1900, stamp.tm.tm_mon + 1, stamp.tm.tm_mday,
                             stamp.tm.tm_hour, stamp.tm.tm_min, stamp.tm.tm_sec, stamp.msec, level, func,
                             line, stamp.tid);
    if (head < 0)
        head = 0;
    size_t full = static_cast<size_t>(head);
    size_t used = full < sizeof(cmd) ? full : sizeof(cmd) - 1;
    int msg = std::vsnprintf(cmd + used, sizeof(cmd) - used, fmt, ap);
    if (msg > 0)
        full += static_cast<size_t>(msg);
    used = full < sizeof(cmd) ? full : sizeof(cmd) - 1;
    std::snprintf(cmd + used, sizeof(cmd) - used, "%s", echo_tail);
    full += sizeof(echo_tail) - 1;
    size_t cmd_len = std::strlen(cmd);
    render_echo(out, cmd, cmd_len, sizeof(echo_head) - 1, full);
}

void lr_console_log(int level, const char *func, int line, const char *fmt, ...) noexcept
{
    console_line out;
    log_stamp stamp = take_stamp();
    va_list ap;
    va_start(ap, fmt);
    format_console_line(out, stamp, level, func, line, fmt, ap);
    va_end(ap);
    emit(out);
}

void lr_write_line(int fd, const char *text) noexcept
{
    write_all(fd, text, std::strlen(text));
}

void lr_perror(const char *what) noexcept
{
    int err = errno;
    char line[256];
    int n = std::snprintf(line, sizeof(line), "%s: %s\n", what, strerror(err));
    if (n > 0)
        write_all(STDERR_FILENO, line, std::min(static_cast<size_t>(n), sizeof(line) - 1));
}

void lr_error_log(const char *file, int line, const char *func, const char *fmt, ...) noexcept
{
    time_t now = time(nullptr);
    struct tm tm {
    };
    localtime_r(&now, &tm);
    char stack[ERROR_LINE_STACK];
    int head = std::snprintf(stack, sizeof(stack), "%4d-%02d-%02d %02d:%02d:%02d | %s:%d | error | %s | ",
                             tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec,
                             file, line, func);
    if (head < 0)
        return;
    va_list ap;
    va_start(ap, fmt);
    va_list again;
    va_copy(again, ap);
    size_t used = std::min(static_cast<size_t>(head), sizeof(stack) - 1);
    int msg = std::vsnprintf(stack + used, sizeof(stack) - used, fmt, ap);
    va_end(ap);
    size_t total = static_cast<size_t>(head) + static_cast<size_t>(msg > 0 ? msg : 0) + 1;
    if (total < sizeof(stack)) {
        stack[total - 1] = '\n';
        write_all(STDOUT_FILENO, stack, total);
        va_end(again);
        return;
    }
    char *big = static_cast<char *>(malloc(total + 1));
    if (big) {
        std::memcpy(big, stack, static_cast<size_t>(head));
        std::vsnprintf(big + head, total - static_cast<size_t>(head), fmt, again);
        big[total - 1] = '\n';
        write_all(STDOUT_FILENO, big, total);
        free(big);
    }
    va_end(again);
}
