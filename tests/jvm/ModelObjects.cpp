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
