// Locals and objects: replies built by hand, and how they are shown.
#include "show/render_objects.h"
#include "wire.h"
#include "wire/objects.h"

#include <algorithm>

using namespace qorctl;

namespace {

// The signs of a signature are marks elsewhere: 'L.../...,' here is "L.../...;" on the wire.
std::string WireOf(std::string_view legible) {
    std::string text = Wire(legible);
    std::replace(text.begin(), text.end(), ',', ';');
    return text;
}

const std::string OBJECT =
    "Message;Object Name :Lqor/Shop,!Object Description;"
    "5002~1~Private: Ljava/net/Socket,~bank~view object;"
    "^~^~Private: Lqor/Till,~till~ ;^~^~Lqor/Shop,~next~ ;^~^~Protected: String~name~Active;"
    "5003~1~Static: [Lqor/Till,~TILLS~view object;Active!"
    "Parent of the Object above:;Lqor/Shop,!"
    "Message;Object Name :Lqor/Base,!"
    "Object Description - No Information available;No Information Available!"
    "Parent of the Object above:;Lqor/Base,!"
    "Message;Object Name :Lqor/Root,!Object Description;^~^~Int~name~7;Active!"
    "Parent of the Object above:;Lqor/Root,!";

TEST(DecodeObject, CutAnywhere) {
    const std::string whole = WireOf(OBJECT), timed = WireOf(OBJECT + TIMING);
    ObjectView shop = DecodeObject(OpenReply(timed), 5000);
    EXPECT_FALSE(shop.cut);
    EXPECT_EQ(FindField(shop, "name")->value, "Active"); // not the end of the rows, nor an inherited field
    ExpectParts(ObjectText(shop, Style()), {"(of its own class, not shown)", "qor.Base\nno fields\n"});
    for (size_t length = 1; length < whole.size(); ++length) {
        const std::string text = whole.substr(0, length);
        ObjectView object = DecodeObject(OpenReply(text), 1);
        EXPECT_TRUE(object.cut || text.back() == SECTION_END) << length;
        for (const ObjectClass &entry : object.classes)
            for (const ObjectField &field : entry.fields)
                EXPECT_TRUE(field.tag == 0 || field.tag == 5002 || field.tag == 5003) << length;
    }
    const std::string text = WireOf("Method Locals;5000~0~Lqor/Shop,~ ;^~^~Int Array~ 1 2 3;^~^~~ ;5001~0~");
    const Locals locals = DecodeLocals(OpenReply(text));
    ASSERT_EQ(locals.rows.size(), 3u);
    EXPECT_TRUE(locals.cut && locals.rows[0].tag == 5000 && locals.rows[1].value == " 1 2 3");
}

} // namespace
