#include "render_tiers.h"

#include "render_memory.h"

#include <fmt/format.h>

namespace qorctl {

namespace {

// Pieces with a separator between them.
class Line {
public:
    explicit Line(const char *separator) : separator_(separator) {}

    void Add(const std::string &piece) {
        if (!piece.empty())
            text_ += (text_.empty() ? "" : separator_) + piece;
    }
    void Add(const char *what, const std::optional<std::string> &value) {
        if (value)
            Add(fmt::format("{} {}", what, *value));
    }
    const std::string &Text() const { return text_; }

private:
    const char *separator_;
    std::string text_;
};

// A thread's number, of its key.
std::string NumberOf(const std::optional<std::string> &key) {
    if (!key)
        return "";
    size_t dash = key->find('-');
    return dash == key->npos ? "no carrier" : "#" + key->substr(dash + 1);
}

} // namespace

std::string AddressText(const std::optional<std::string> &host, int64_t port) {
    std::string text = host.value_or("");
    bool v6 = text.find(':') != text.npos;
    return port <= 0 ? text : fmt::format(v6 ? "[{}]:{}" : "{}:{}", text, port);
}

std::string RequestText(const Thread &thread) {
    Line line(" ");
    line.Add(thread.request_url.value_or(""));
    line.Add(thread.request_detail.value_or(""));
    return line.Text();
}

std::string DatabaseText(const Thread &thread) {
    if (!thread.db)
        return "";
    Line line(" ");
    std::string server = AddressText(thread.db->remote_host, thread.db->remote_port);
    line.Add(server.empty() || !thread.db->user ? thread.db->user.value_or(server)
                                                : fmt::format("{}@{}", *thread.db->user, server));
    if (thread.db->local_port)
        line.Add(fmt::format("from :{}", thread.db->local_port));
    return line.Text();
}

std::string DatabaseUrlText(const Thread &thread) {
    return thread.db ? thread.db->url.value_or("") : "";
}

std::string SqlText(const Thread &thread) {
    return thread.db ? thread.db->sql.value_or("") : "";
}

std::string RemoteText(const Thread &thread) {
    Line line(" ");
    if (thread.rmi) {
        line.Add(thread.rmi->jndi_name.value_or(""));
        if (thread.rmi->remote_host)
            line.Add("at " + AddressText(thread.rmi->remote_host, thread.rmi->remote_port));
    }
    line.Add(thread.end_to_end.peer.value_or(""));
    return line.Text();
}

std::string FileText(const Thread &thread) {
    return thread.end_to_end.file.value_or("");
}

std::string ServerText(const Thread &thread) {
    const EndToEnd &told = thread.end_to_end;
    Line line(", ");
    line.Add("application", told.application);
    line.Add("module", told.module);
    line.Add("work manager", told.work_manager);
    line.Add("session", told.session);
    line.Add(told.stuck.value_or(0) ? "stuck" : "");
    line.Add(told.hogger.value_or(0) ? "hogging" : "");
    return line.Text();
}

std::string CpuTimeText(const Thread &thread) {
    constexpr double NANOS = 1e9;
    const std::optional<int64_t> &time = thread.end_to_end.cpu_nanoseconds;
    return time ? fmt::format("{:.2f} s", static_cast<double>(*time) / NANOS) : "";
}

std::string AllocationText(const Thread &thread) {
    const std::optional<int64_t> &bytes = thread.end_to_end.allocated_bytes;
    return bytes ? SizeText(*bytes) : "";
}

std::string FiguresText(const Thread &thread) {
    Line line(", ");
    std::string cpu = CpuTimeText(thread), allocated = AllocationText(thread);
    line.Add(cpu.empty() ? cpu : cpu + " processor time");
    line.Add(allocated.empty() ? allocated : allocated + " allocated");
    return line.Text();
}

std::string MarkedName(const Thread &thread) {
    Line line(" ");
    line.Add(thread.name);
    line.Add(thread.end_to_end.carrier ? "(virtual)" : "");
    if (thread.end_to_end.carries)
        line.Add(fmt::format("(carries {})", CarriesText(thread)));
    return line.Text();
}

std::string CarrierText(const Thread &thread) {
    return NumberOf(thread.end_to_end.carrier);
}

std::string CarriesText(const Thread &thread) {
    return NumberOf(thread.end_to_end.carries);
}

std::string OwnText(const Thread &thread) {
    Line line(", ");
    for (const std::string &text : thread.end_to_end.texts)
        line.Add(text);
    return line.Text();
}

} // namespace qorctl
