// Locals and objects: replies built by hand, and how they are shown.
#include "base/failure.h"
#include "show/render_objects.h"
#include "wire.h"
#include "wire/objects.h"
#include "wire/protocol.h"
#include "wire/request.h"

#include <algorithm>
#include <gtest/gtest.h>

using namespace qorctl;

namespace {

// The signs of a signature are marks elsewhere: 'L.../...,' here is "L.../...;" on the wire.
std::string WireOf(std::string_view legible) {
    std::string text = Wire(legible);
    std::replace(text.begin(), text.end(), ',', ';');
    return text;
}

Thread Descender() {
    Thread thread;
    thread.name = "deep";
    thread.key = {77, 23};
    for (int i = 0; i < 4; ++i) {
        Frame &frame = thread.stack.emplace_back();
        frame.class_name = "a.Tree";
        frame.method = i == 3 ? "run" : "descend";
        frame.method_id = i == 3 ? 2 : 1;
        frame.index = i;
    }
    return thread;
}

TEST(DecodeLocals, Rows) {
    std::string text = WireOf("Method Locals;5000~0~Lqor/Shop,~ ;^~^~String~hello;^~^~Int Array~ 1 2 3;"
                              "5001~0~[[I~ ;^~^~~ ;Active!" +
                              TIMING);
    Locals locals = DecodeLocals(OpenReply(text));
    ASSERT_EQ(locals.rows.size(), 5u);
    EXPECT_EQ(locals.rows[0].tag, 5000);
    EXPECT_FALSE(locals.rows[1].tag);
    EXPECT_EQ(locals.rows[1].value, "hello");
    EXPECT_EQ(locals.rows[3].type, "int[][]");
    EXPECT_FALSE(locals.cut);
    Thread thread = Descender();
    std::string shown = LocalsText(locals, thread, thread.stack[1], Style());
    for (const char *part : {"\"deep\" #23 frame 1: a.Tree.descend(Native Method)\n", "\n5000  qor.Shop\n",
                             "3 frames of this thread run the method"})
        EXPECT_NE(shown.find(part), std::string::npos) << shown;
    EXPECT_EQ(LocalsText(locals, thread, thread.stack[3], Style()).find("run the method"), std::string::npos);
    Json json = LocalsJson(locals, thread, thread.stack[1]);
    EXPECT_TRUE(json["locals"][0]["value"].is_null());
    EXPECT_EQ(json["locals"][2]["value"], " 1 2 3");
    EXPECT_TRUE(DecodeLocals(OpenReply(Wire("!" + TIMING))).rows.empty());
    EXPECT_NE(LocalsText(Locals(), thread, thread.stack[0], Style()).find("no objects"), std::string::npos);
    std::string cut = WireOf("Method Locals;5000~0~La,~ ;5001~0~");
    EXPECT_TRUE(DecodeLocals(OpenReply(cut)).cut);
    EXPECT_EQ(DecodeLocals(OpenReply(cut)).rows.size(), 1u);
    for (const char *wrong : {"Method Locals;5000~0~x;Active!", "Method Locals;a~0~x~y;Active!", "Other;x!"})
        EXPECT_THROW(DecodeLocals(OpenReply(Wire(wrong + TIMING))), Failure) << wrong;
}

const std::string OBJECT = "Message;Object Name :Lqor/Shop,!Object Description;"
                           "5002~1~Private: Ljava/net/Socket,~bank~view object;"
                           "^~^~Static: Long~LIMIT~30000000000;^~^~Private: Lqor/Till,~till~ ;"
                           "^~^~Lqor/Shop,~next~ ;^~^~Protected: String~name~Active;"
                           "5003~1~Static: [Lqor/Till,~TILLS~view object;Active!"
                           "Parent of the Object above:;Lqor/Shop,!"
                           "Message;Object Name :Lqor/Base,!"
                           "Object Description - No Information available;No Information Available!"
                           "Parent of the Object above:;Lqor/Base,!"
                           "Message;Object Name :Lqor/Root,!Object Description;^~^~Int~name~7;Active!"
                           "Parent of the Object above:;Lqor/Root,!";

TEST(DecodeObject, FieldsUpTheChain) {
    std::string text = WireOf(OBJECT + TIMING);
    ObjectView object = DecodeObject(OpenReply(text), 5000);
    EXPECT_FALSE(object.cut);
    ASSERT_EQ(object.classes.size(), 3u);
    EXPECT_EQ(object.classes[0].name, "qor.Shop");
    EXPECT_TRUE(object.classes[1].fields.empty());
    ASSERT_EQ(object.classes[0].fields.size(), 6u);
    std::string fields;
    for (const ObjectField &field : object.classes[0].fields)
        fields += field.modifier + " " + field.type + " " + field.name + "=" + field.value +
                  std::to_string(static_cast<int>(field.kind)) + "," + std::to_string(field.tag) + "\n";
    EXPECT_EQ(fields, "private java.net.Socket bank=0,5002\n"
                      "static Long LIMIT=300000000001,0\n"
                      "private qor.Till till=2,0\n"
                      " qor.Shop next=3,0\n"
                      "protected String name=Active1,0\n" // a value, not the end of the rows
                      "static qor.Till[] TILLS=0,5003\n");
    ASSERT_TRUE(FindField(object, "name"));
    EXPECT_EQ(FindField(object, "name")->type, "String"); // the object's own before an inherited one
    EXPECT_FALSE(FindField(object, "nam"));
    std::string shown = ObjectText(object, Style());
    for (const char *part : {"qor.Shop tag 5000\n", "(of its own class, not shown)", "qor.Base\nno fields\n"})
        EXPECT_NE(shown.find(part), std::string::npos) << shown;
    Json json = ObjectJson(object)["classes"];
    EXPECT_EQ(json[0]["fields"][0]["tag"], 5002);
    EXPECT_EQ(json[0]["fields"][2]["kind"], "null");
    EXPECT_TRUE(json[0]["fields"][2]["value"].is_null());
    EXPECT_EQ(json[2]["fields"][0]["value"], "7");
}

TEST(DecodeObject, EmptyCutAndWrongReplies) {
    EXPECT_TRUE(DecodeObject(OpenReply(Wire(TIMING)), 1).classes.empty());
    std::string whole = WireOf(OBJECT);
    for (size_t length = 1; length < whole.size(); ++length) {
        std::string text = whole.substr(0, length);
        ObjectView object = DecodeObject(OpenReply(text), 1);
        EXPECT_TRUE(object.cut || text.back() == SECTION_END) << length;
        for (const ObjectClass &entry : object.classes)
            for (const ObjectField &field : entry.fields)
                EXPECT_TRUE(field.tag == 0 || field.tag == 5002 || field.tag == 5003) << length;
    }
    for (const char *wrong : {"Object Description;^~^~Int~n~7;Active!", "Message;Name :x!",
                              "Message;Object Name :x!Object Description;^~^~Int~n;Active!",
                              "Message;Object Name :x!Object Description;a~1~Int~n~v;Active!"})
        EXPECT_THROW(DecodeObject(OpenReply(Wire(wrong + TIMING)), 1), Failure) << wrong;
    EXPECT_EQ(ObjectRequest(5000, false), "521|showstack|1024|ARG=x,0=5000,1=0");
    Frame frame;
    frame.method_id = -1609482896;
    EXPECT_EQ(LocalsRequest(23, frame), "521|showstack|4096|ARG=x,0=23,1=-1609482896,2=2,3=3");
}

} // namespace
