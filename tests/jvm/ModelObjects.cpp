#include "ModelObjects.h"

#include "qorStrUtils.h"

#include <regex>

jobject MakeObject(const std::string &klass) {
    jclass found = Env()->FindClass(klass.c_str());
    EXPECT_TRUE(found) << klass;
    jobject object = Env()->AllocObject(found);
    Env()->DeleteLocalRef(found);
    return object;
}

void Plant(jobject root, const std::string &path, const JavaArgument &value) {
    static const std::regex STEP("([^,|]+),([^=|]+)=?([^|]*)(\\|?)");
    for (std::sregex_iterator at(path.begin(), path.end(), STEP), end; at != end; ++at) {
        const std::string name = (*at)[1], signature = (*at)[2], made = (*at)[3];
        jclass klass = Env()->GetObjectClass(root);
        jfieldID field = Env()->GetFieldID(klass, name.c_str(), signature.c_str());
        ASSERT_TRUE(field) << name << " " << signature;
        Env()->DeleteLocalRef(klass);
        if (!(*at)[4].length()) {
            if (signature == "I")
                Env()->SetIntField(root, field, value.word.i);
            else if (signature == "Z")
                Env()->SetBooleanField(root, field, value.word.z);
            else if (signature == "J")
                Env()->SetLongField(root, field, value.word.j);
            else
                Env()->SetObjectField(root, field, value.text.empty() ? value.word.l : Text(value.text));
            return;
        }
        jobject next = Env()->GetObjectField(root, field);
        if (!next) {
            next = MakeObject(made.empty() ? signature.substr(1, signature.size() - 2) : made);
            Env()->SetObjectField(root, field, next);
        }
        root = next;
    }
}

ModelEntry::ModelEntry(int32_t kindOfEntry, const std::string &signature, jobject object, const char *method)
    : QorAllThreadLocalInfoList() {
    kind = kindOfEntry;
    methodName = method;
    className = "app.Main";
    QorStrncpy(strSignature, signature.c_str(), sizeof strSignature, sizeof strSignature);
    objLocalVarHandle = Env()->NewGlobalRef(object);
}

ModelEntry::~ModelEntry() {
    Env()->DeleteGlobalRef(objLocalVarHandle);
}
