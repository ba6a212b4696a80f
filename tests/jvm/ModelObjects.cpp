#include "ModelObjects.h"

#include "qorStrUtils.h"

namespace {

struct Step {
    explicit Step(const std::string &text) {
        const size_t made = text.find('='), comma = text.find(',');
        name = text.substr(0, comma);
        signature = text.substr(comma + 1, made == std::string::npos ? made : made - comma - 1);
        klass = made != std::string::npos ? text.substr(made + 1) : signature.substr(1, signature.size() - 2);
    }

    jfieldID in(jobject object) const {
        jclass owner = Env()->GetObjectClass(object);
        jfieldID field = Env()->GetFieldID(owner, name.c_str(), signature.c_str());
        EXPECT_TRUE(field) << name << " " << signature;
        Env()->DeleteLocalRef(owner);
        return field;
    }

    std::string name, signature, klass;
};

// Follows all steps but the last, which it leaves in `path`.
jobject Approach(jobject root, std::string *path) {
    jobject current = root;
    for (size_t bar = path->find('|'); bar != std::string::npos; bar = path->find('|')) {
        const Step step(path->substr(0, bar));
        path->erase(0, bar + 1);
        jfieldID field = step.in(current);
        jobject next = Env()->GetObjectField(current, field);
        if (!next)
            Env()->SetObjectField(current, field, next = MakeObject(step.klass));
        current = next;
    }
    return current;
}

} // namespace

jobject MakeObject(const std::string &klass) {
    jclass found = Env()->FindClass(klass.c_str());
    EXPECT_TRUE(found) << klass;
    jobject object = Env()->AllocObject(found);
    Env()->DeleteLocalRef(found);
    return object;
}

void Plant(jobject root, const std::string &path, const std::string &value) {
    std::string last = path;
    jobject owner = Approach(root, &last);
    const Step step(last);
    if (step.signature == "I")
        Env()->SetIntField(owner, step.in(owner), std::stoi(value));
    else if (step.signature == "Z")
        Env()->SetBooleanField(owner, step.in(owner), value == "1");
    else
        Env()->SetObjectField(owner, step.in(owner), Text(value));
}

void PlantObject(jobject root, const std::string &path, jobject value) {
    std::string last = path;
    jobject owner = Approach(root, &last);
    Env()->SetObjectField(owner, Step(last).in(owner), value);
}

ModelEntry::ModelEntry(int32_t kindOfEntry, const std::string &signature, jobject object, const char *method,
                       const char *klass)
    : QorAllThreadLocalInfoList() {
    kind = kindOfEntry;
    methodName = method;
    className = klass;
    QorStrncpy(strSignature, signature.c_str(), sizeof strSignature, sizeof strSignature);
    objLocalVarHandle = Env()->NewGlobalRef(object);
}

ModelEntry::~ModelEntry() {
    Env()->DeleteGlobalRef(objLocalVarHandle);
}

std::string Shown(const std::string &value, size_t size) {
    std::string shown = value.substr(0, size - 1);
    if (value.size() > shown.size()) {
        size_t start = shown.size();
        auto isStart = [&](size_t at) { return (value[at] & 0xC0) != 0x80; };
        while (!isStart(start))
            start--;
        shown.resize(start);
        // The first half of a pair doesn't stand alone.
        const size_t half = shown.size() - 3;
        if (shown.size() >= 3 && shown[half] == '\xed' && (shown[half + 1] & 0xF0) == 0xA0)
            shown.resize(half);
    }
    for (char &c : shown)
        if (c == '\n' || c == '\r' || c == 14 || c == 15 || (c >= 26 && c <= 31))
            c = ' ';
    return shown;
}

std::vector<std::string> TrialValues() {
    const std::string separators = "a\x0e\x0f\x1a\x1b\x1c\x1d\x1e\x1f\n\rz";
    std::string pairs, accents;
    while (accents.size() < 9000) {
        pairs += "\xed\xa0\xbd\xed\xb8\x80";
        accents += "\xc3\xa9";
    }
    return {"/a/b", "", separators + pairs, "x" + pairs, "y" + accents, "z" + std::string(9000, 'z')};
}
