// The daemon's two log forms.
//
// Console form: LR_LOG(level, fmt, ...) writes one framed line to
// "/dev/console" when log_level is at least `level`. A suppressed call
// evaluates nothing but that one comparison: the arguments are not touched.
//
// Error form: LR_ERROR_LOG(file, fmt, ...) prints a framed failure line on
// standard output, always. Only the history store and the device command
// handlers use it, with their module name as `file`.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdarg>
#include <ctime>

// Run-time threshold of the console form. Written by set_log_level on a pool
// worker, read everywhere without a lock; an atomic load costs the same as a
// plain one on every target we build for.
extern std::atomic<int32_t> log_level;

inline constexpr int32_t LOG_LEVEL_DEFAULT = 2;

// The shell command of the console form is built in a buffer of this size,
// terminator included; whatever does not fit is cut.
inline constexpr size_t LOG_LINE_BUF = 512;

void lr_console_log(int level, const char *func, int line, const char *fmt, ...) noexcept
    __attribute__((format(printf, 4, 5)));

void lr_error_log(const char *file, int line, const char *func, const char *fmt, ...) noexcept
    __attribute__((format(printf, 4, 5)));

// Every line of every form reaches its descriptor in one write(2), so lines
// of different threads never interleave mid-line. These are the ways out for
// the fixed texts of the readers ("ARP_sniffer: ...", "lanroster: ...") and
// for what the store prints on standard output.
void lr_write_line(int fd, const char *text) noexcept;
// perror's line, "<what>: <strerror(errno)>\n", in one write.
void lr_perror(const char *what) noexcept;

// Runs as a pool task with a byte copy of a bus event's blob (or nullptr):
// the value of its "log_level" key becomes the threshold, any value; with no
// message the threshold goes back to 2. Frees the message.
void set_log_level(void *message) noexcept;

#define LR_LOG(level, ...)                                                                                   \
    do {                                                                                                     \
        if (log_level.load(std::memory_order_relaxed) >= (level))                                            \
            lr_console_log((level), __func__, __LINE__, __VA_ARGS__);                                        \
    } while (0)

#define LR_ERROR_LOG(file, ...) lr_error_log((file), __LINE__, __func__, __VA_ARGS__)

// What one console-form call produces: the bytes `echo` would write and
// whether they reach the console (the redirection survived the cut) or the
// daemon's own standard output (it did not).
struct console_line {
    char text[LOG_LINE_BUF + 1];
    size_t len;
    bool to_console;
};

// The time stamp of a line, split so that tests can fix it.
struct log_stamp {
    struct tm tm;
    int msec;
    unsigned long tid;
};

// Builds the line of one call from its stamp, the way the shell would see
// and run `echo "<frame><message>" > /dev/console` in a 512-byte buffer.
void format_console_line(console_line &out, const log_stamp &stamp, int level, const char *func, int line,
                         const char *fmt, va_list ap) noexcept __attribute__((format(printf, 6, 0)));

// Same from a ready command text (at most LOG_LINE_BUF - 1 bytes, as the
// bounded print left it) whose message starts at `text_begin`.
void render_echo(console_line &out, const char *cmd, size_t cmd_len, size_t text_begin,
                 size_t full_len) noexcept;
