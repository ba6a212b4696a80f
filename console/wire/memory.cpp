#include "memory.h"

#include "base/failure.h"
#include "protocol.h"
#include "records.h"

#include <algorithm>

namespace qorctl {

namespace {

constexpr uint64_t NOT_COUNTED = 0xffffffff; // -1 of the JVM, as the wire has it

bool ReadPool(std::string_view record, HeapPool *pool) {
    std::vector<std::string_view> field = Split(record, FIELD_SEP);
    if (field.size() < 5 || !ReadNumber(field[1], &pool->max_kib) || !ReadNumber(field[2], &pool->used_kib) ||
        !ReadNumber(field[3], &pool->percent) || !ReadNumber(field[4], &pool->available_kib))
        return false;
    pool->name = field[0];
    return true;
}

bool ReadCollector(std::string_view record, Collector *collector) {
    std::vector<std::string_view> field = Split(record, FIELD_SEP);
    uint64_t count = 0;
    if (field.size() < 2 || !ReadNumber(field[1], &count))
        return false;
    std::string_view name = field[0];
    if (name.size() > GC_NAME_TAIL.size() && name.substr(name.size() - GC_NAME_TAIL.size()) == GC_NAME_TAIL)
        name.remove_suffix(GC_NAME_TAIL.size());
    collector->name = name;
    if (count != NOT_COUNTED)
        collector->count = count;
    return true;
}

// Nothing for a negative number, which stands for a figure that the JVM doesn't report.
bool ReadFigure(std::string_view text, std::optional<uint64_t> *figure) {
    int64_t value = 0;
    if (!ReadNumber(text, &value))
        return false;
    if (value >= 0)
        *figure = static_cast<uint64_t>(value);
    return true;
}

bool ReadCollectorBean(std::string_view record, CollectorBean *bean) {
    Fields field = Split(record, FIELD_SEP);
    if (field.size() < 3 || !ReadFigure(field[1], &bean->count) || !ReadFigure(field[2], &bean->milliseconds))
        return false;
    bean->name = field[0];
    return true;
}

// The heap's used and greatest size after seven figures that are always zero.
bool ReadMemory(std::string_view record, MemoryView *view) {
    constexpr size_t USED = 8, GREATEST = 9, FIELDS = 11;
    std::vector<std::string_view> field = Split(record, FIELD_SEP);
    return field.size() >= FIELDS && ReadNumber(field[USED], &view->used_kib) &&
           ReadNumber(field[GREATEST], &view->max_kib);
}

// The seven figures of kinds and the two after them.
bool ReadKinds(std::string_view record, std::string *name, int64_t (&figures)[KINDS], int64_t *first,
               int64_t *second) {
    constexpr size_t FIRST = 1 + OTHER_KINDS, SECOND = FIRST + 1, FIELDS = SECOND + 1;
    Fields field = Split(record, FIELD_SEP);
    bool read =
        field.size() == FIELDS && ReadNumber(field[FIRST], first) && ReadNumber(field[SECOND], second);
    for (size_t i = 0; read && i < OTHER_KINDS; ++i)
        read = ReadNumber(field[i + 1], &figures[i]);
    *name = field[0];
    return read;
}

bool ReadKindSizes(std::string_view record, SpaceKinds *space) {
    return ReadKinds(record, &space->name, space->kib, &space->used_kib, &space->max_kib);
}

bool ReadKindCounts(std::string_view record, SpaceKinds *space) {
    int64_t unused = 0;
    if (!ReadKinds(record, &space->name, space->count, &unused, &space->objects))
        return false;
    space->count[OTHER_KINDS] = space->objects;
    for (size_t i = 0; i < OTHER_KINDS; ++i)
        space->count[OTHER_KINDS] -= space->count[i];
    return true;
}

bool ReadClassCount(std::string_view record, ClassCount *count) {
    std::vector<std::string_view> field = Split(record, FIELD_SEP);
    if (field.size() < 4 || !ReadNumber(field[1], &count->instances) || !ReadNumber(field[2], &count->kib))
        return false;
    count->class_name = JavaName(field[0]);
    return true;
}

void ReadCollectors(RecordReader *reader, const Section &section, std::vector<Collector> *collectors) {
    reader->Each<Collector>(section, ReadCollector,
                            [&](Collector &&collector) { collectors->push_back(std::move(collector)); });
}

Failure NoView(const char *what) {
    return Failure(fmt::format("the agent's reply holds no {}", what),
                   "see the reply itself with 'raw'; the agent may be of an older version");
}

bool ReadAge(std::string_view record, int64_t *age) {
    Fields field = Split(record, FIELD_SEP);
    return ReadNumber(field[0], age);
}

} // namespace

HeapView DecodeHeap(const Reply &reply) {
    HeapView view;
    RecordReader reader(reply);
    for (const Section &section : reply.sections) {
        if (section.title == TITLE_HEAP)
            reader.Each<HeapPool>(section, ReadPool,
                                  [&](HeapPool &&pool) { view.pools.push_back(std::move(pool)); });
        else if (section.title == TITLE_COLLECTIONS)
            ReadCollectors(&reader, section, &view.collectors);
        else
            reader.Unknown(section);
    }
    if (view.pools.empty())
        throw NoView("heap");
    view.jvm_microseconds = reply.jvm_microseconds;
    return view;
}

std::vector<CollectorBean> DecodeCollectors(std::string_view text) {
    std::vector<CollectorBean> beans;
    if (text == UNKNOWN_SETTING)
        return beans;
    Reply reply = OpenReply(text);
    RecordReader reader(reply);
    for (const Section &section : reply.sections)
        if (section.title == TITLE_COLLECTORS)
            reader.Each<CollectorBean>(section, ReadCollectorBean,
                                       [&](CollectorBean &&bean) { beans.push_back(std::move(bean)); });
        else
            reader.Unknown(section);
    return beans;
}

MemoryView DecodeMemory(const Reply &reply) {
    MemoryView view;
    RecordReader reader(reply);
    bool found = false;
    for (const Section &section : reply.sections) {
        if (section.title == TITLE_MEMORY)
            reader.Each<MemoryView>(section, ReadMemory, [&](MemoryView &&memory) {
                view.used_kib = memory.used_kib;
                view.max_kib = memory.max_kib;
                found = true;
            });
        else if (section.title == TITLE_SPACES)
            reader.Each<HeapPool>(section, ReadPool, [&](HeapPool &&pool) {
                view.used_kib += static_cast<int64_t>(pool.used_kib);
                view.max_kib += static_cast<int64_t>(pool.max_kib);
                view.pools.push_back(std::move(pool));
                found = true;
            });
        else if (section.title == TITLE_COLLECTIONS)
            ReadCollectors(&reader, section, &view.collectors);
        else if (section.title == TITLE_MEMORY_OBJECTS)
            reader.Skip(section); // the same figures once more; objects aren't counted
        else
            reader.Unknown(section);
    }
    if (!found)
        throw NoView("memory figures");
    view.jvm_microseconds = reply.jvm_microseconds;
    return view;
}

std::vector<SpaceKinds> DecodeKinds(const Reply &reply) {
    std::vector<SpaceKinds> spaces;
    RecordReader reader(reply);
    size_t counted = 0;
    auto add_counts = [&](SpaceKinds &&space) {
        if (counted == spaces.size() || spaces[counted].name != space.name)
            throw UnknownForm("the tables of objects don't name the same spaces");
        std::copy(space.count, space.count + KINDS, spaces[counted].count);
        spaces[counted++].objects = space.objects;
    };
    for (const Section &section : reply.sections)
        if (section.title == TITLE_MEMORY)
            reader.Each<SpaceKinds>(section, ReadKindSizes,
                                    [&](SpaceKinds &&space) { spaces.push_back(std::move(space)); });
        else if (section.title == TITLE_MEMORY_OBJECTS)
            reader.Each<SpaceKinds>(section, ReadKindCounts, add_counts);
        else if (section.title == TITLE_COLLECTIONS)
            reader.Skip(section);
        else
            reader.Unknown(section);
    if (spaces.empty() || counted != spaces.size())
        throw NoView("objects by kind");
    return spaces;
}

Histogram DecodeHistogram(const Reply &reply) {
    Histogram histogram;
    RecordReader reader(reply);
    for (const Section &section : reply.sections) {
        if (section.title == TITLE_CLASSES)
            reader.Each<ClassCount>(section, ReadClassCount, [&](ClassCount &&count) {
                histogram.classes.push_back(std::move(count));
            });
        else if (section.title == TITLE_CLASSES_AGE)
            reader.Each<int64_t>(section, ReadAge, [&](int64_t &&age) { histogram.age_seconds = age; });
        else
            reader.Unknown(section);
    }
    if (histogram.classes.empty())
        throw Failure("the agent counted no classes",
                      "its log says why (set its level with 'log', ask again)");
    histogram.jvm_microseconds = reply.jvm_microseconds;
    histogram.cut = reader.cut();
    return histogram;
}

} // namespace qorctl
