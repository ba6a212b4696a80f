#include "json.h"

#include "wire/protocol.h"

namespace qorctl {

namespace {

template <class T>
Json OrNull(const std::optional<T> &value) {
    return value ? Json(*value) : Json();
}

Json TextOrNull(const std::string &text) {
    return text.empty() ? Json() : Json(text);
}

Json NumberOrNull(int64_t number) {
    return number == 0 ? Json() : Json(number);
}

Json ToJson(const Frame &frame) {
    return {{"class", frame.class_name},
            {"method", frame.method},
            {"file", TextOrNull(frame.file)},
            {"line", NumberOrNull(frame.line)}};
}

Json StackRow(const Frame &frame) {
    Json row = {{"index", frame.framework ? Json() : Json(frame.index)}};
    if (frame.skipped > 0) {
        row["skipped"] = frame.skipped;
        return row;
    }
    row.update(ToJson(frame));
    row["method_id"] = frame.framework ? Json() : Json(frame.method_id);
    if (frame.user)
        row["application"] = *frame.user;
    return row;
}

Json ToJson(const RmiWait &rmi) {
    return {{"call_id", NumberOrNull(rmi.call_id)},
            {"remote_host", OrNull(rmi.remote_host)},
            {"remote_port", NumberOrNull(rmi.remote_port)},
            {"jndi_name", OrNull(rmi.jndi_name)}};
}

Json ToJson(const LockWait &wait) {
    return {{"lock", wait.lock},
            {"class", wait.class_name},
            {"owner", wait.owner.thread > 0 ? Json(wait.owner.thread) : Json()}};
}

Json ToJson(const OwnedLock &lock) {
    return {{"lock", lock.lock},
            {"class", lock.class_name},
            {"depth", lock.depth >= 0 ? Json(lock.depth) : Json()}};
}

// What is known, straight in the thread's object.
void AddEndToEnd(const EndToEnd &told, Json *thread) {
    auto add = [](Json *object, const char *key, const auto &value) {
        if (value)
            (*object)[key] = *value;
    };
    auto add_truth = [](Json *object, const char *key, const std::optional<int64_t> &value) {
        if (value)
            (*object)[key] = *value != 0;
    };
    add(thread, "cpu_nanoseconds", told.cpu_nanoseconds);
    add(thread, "allocated_bytes", told.allocated_bytes);
    add(thread, "file", told.file);
    add(thread, "peer", told.peer);
    add(thread, "rule", told.rule);
    Json server = Json::object();
    add(&server, "application", told.application);
    add(&server, "module", told.module);
    add(&server, "work_manager", told.work_manager);
    add(&server, "session", told.session);
    add_truth(&server, "stuck", told.stuck);
    add_truth(&server, "hogger", told.hogger);
    if (!server.empty())
        (*thread)["server"] = server;
    if (!told.texts.empty())
        (*thread)["texts"] = told.texts;
}

// Of a virtual thread and of its carrier each the other's key.
void AddVirtual(const EndToEnd &told, Json *thread) {
    if (told.carrier) {
        (*thread)["virtual"] = true;
        (*thread)["carrier"] = *told.carrier == NO_VALUE ? Json() : Json(*told.carrier);
    }
    if (told.carries)
        (*thread)["carries"] = *told.carries;
}

template <class T, class Convert>
Json Array(const std::vector<T> &values, Convert convert) {
    Json array = Json::array();
    for (const T &value : values)
        array.push_back(convert(value));
    return array;
}

void AddTiers(const Thread &thread, Json *object) {
    if (thread.request_url || thread.request_detail)
        (*object)["request"] = {{"url", OrNull(thread.request_url)},
                                {"detail", OrNull(thread.request_detail)}};
    if (thread.db)
        (*object)["db"] = DbJson(*thread.db);
    if (thread.rmi)
        (*object)["rmi"] = ToJson(*thread.rmi);
    AddEndToEnd(thread.end_to_end, object);
    AddVirtual(thread.end_to_end, object);
}

void AddLocks(const Thread &thread, Json *object) {
    (*object)["waits_for"] = thread.waits_for ? ToJson(*thread.waits_for) : Json();
    (*object)["parked_on"] =
        thread.parked_on ? Json{{"lock", thread.parked_on->lock}, {"class", thread.parked_on->class_name}}
                         : Json();
    (*object)["owns"] = Array(thread.owns, [](const OwnedLock &lock) { return ToJson(lock); });
}

} // namespace

Json ToJson(const Thread &thread) {
    Json object = {{"name", thread.name},
                   {"id", thread.key.thread},
                   {"key", thread.key.Text()},
                   {"state", thread.state},
                   {"call", thread.call ? ToJson(*thread.call) : Json()}};
    AddTiers(thread, &object);
    if (thread.stack.empty())
        return object;
    object["stack"] = Array(thread.stack, StackRow);
    object["stack_cut"] = thread.stack_cut;
    AddLocks(thread, &object);
    return object;
}

Json DbJson(const DbWait &db) {
    return {{"url", OrNull(db.url)},
            {"user", OrNull(db.user)},
            {"local_port", NumberOrNull(db.local_port)},
            {"remote_host", OrNull(db.remote_host)},
            {"remote_port", NumberOrNull(db.remote_port)},
            {"sample_time", NumberOrNull(db.sample_time)},
            {"sql_ref", NumberOrNull(db.sql_ref)},
            {"sql", OrNull(db.sql)},
            {"type", OrNull(db.type)}};
}

Json RowJson(const Thread &thread) {
    Json object = {{"name", thread.name}, {"id", thread.key.thread}, {"state", thread.state}};
    AddTiers(thread, &object);
    AddLocks(thread, &object);
    return object;
}

Json ToJson(const ThreadSample &sample) {
    return {{"threads", Array(sample.threads, [](const Thread &thread) { return ToJson(thread); })},
            {"jvm_microseconds", OrNull(sample.jvm_microseconds)},
            {"cut", sample.cut || CutStacks(sample) > 0}};
}

Json ToJson(const LockHolder &holder) {
    return holder.answer == LockHolder::FOUND ? ToJson(holder.thread) : Json();
}

Json ToJson(const Summary &summary) {
    Json object;
    for (int i = 0; i < SUMMARY_FIGURES; ++i)
        object[SUMMARY_NAMES[i].key] = OrNull(summary.figures[i]);
    object["jvm_microseconds"] = OrNull(summary.jvm_microseconds);
    return object;
}

Json CpuJson(const Summary &summary) {
    Json object;
    for (int i = 0; i < SUMMARY_FIGURES; ++i)
        if (IsCpuFigure(i))
            object[SUMMARY_NAMES[i].key] = OrNull(summary.figures[i]);
    return object;
}

Json ToJson(const std::vector<JvmEntry> &jvms) {
    return Array(jvms, [](const JvmEntry &jvm) {
        Json agent = jvm.agent == AgentState::UNKNOWN ? Json() : Json(jvm.agent == AgentState::RUNNING);
        return Json{{"pid", jvm.pid},
                    {"user", jvm.user},
                    {"java_version", TextOrNull(jvm.java_version)},
                    {"main_class", TextOrNull(jvm.main_class)},
                    {"agent", agent},
                    {"ports", jvm.ports ? Json(*jvm.ports) : Json()},
                    {"note", TextOrNull(jvm.note)}};
    });
}

std::string JsonText(const Json &document, bool one_line) {
    constexpr bool ASCII_ALONE = true; // characters beyond it may steer a terminal
    return document.dump(one_line ? -1 : 2, ' ', ASCII_ALONE, Json::error_handler_t::replace);
}

} // namespace qorctl
