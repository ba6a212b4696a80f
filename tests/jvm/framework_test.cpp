#include "JvmFixture.h"
#include "LogCapture.h"
#include "ModelObjects.h"
#include "Xtier/tiers/XtierQRF.h"
#include "jvmti/JniCalls.h"

namespace {

struct Framework : SessionTest {
    void SetUp() override {
        SessionTest::SetUp();
        QorClearJSPRequestData(&record);
    }

    static void read(int32_t kind, const char *signature, jobject object, const char *klass = "app.Main",
                     const char *method = "run") {
        const ModelEntry entry(kind, signature, object, method, klass);
        QorReadFrameworkEntry(&entry, &record);
    }

    static std::string pageName(const char *signature, jobject object, int32_t kind = LOCAL_WEB_REQUEST) {
        char name[REQUEST_TEXT_SIZE] = "as it was";
        const ModelEntry entry(kind, signature, object);
        QorReadPageName(&entry, name);
        return name;
    }

    static QorJSPRequestData &record;
};

QorJSPRequestData &Framework::record = objQorJSPRequestData;

constexpr char SCRIPT[] = "Ltessar/kvo/ExprEval;";
constexpr char CALL_SITE[] = "Lorg/codehaus/groovy/runtime/callsite/AbstractCallSite;";
constexpr char UNWRAPPED_SITE[] =
    "Lorg/codehaus/groovy/runtime/callsite/PogoMetaMethodSite$PogoMetaMethodSiteNoUnwrap;";

struct NamedObject {
    int32_t kind;
    const char *signature, *klass, *path;
    const char *field; // of the record
    size_t size;
};

const NamedObject NAMED_OBJECTS[] = {
    {LOCAL_VIEW_OR_ENTITY, "Ltessar/kvo/server/ViewObjectImpl;", "tessar/kvo/server/ViewObjectImpl",
     "mViewDef,Ltessar/kvo/server/ViewDefImpl;|mObjName,Ljava/lang/String;",
     objQorJSPRequestData.qrfObjectName, sizeof objQorJSPRequestData.qrfObjectName},
    {LOCAL_VIEW_OR_ENTITY, "Ltessar/kvo/server/ViewAttributeDefImpl;",
     "tessar/kvo/server/ViewAttributeDefImpl", "mDef,Ltessar/kvo/server/RowDef;|mObjName,Ljava/lang/String;",
     objQorJSPRequestData.qrfObjectName, sizeof objQorJSPRequestData.qrfObjectName},
    // The entity stands next to the event that the entry bears the signature of.
    {LOCAL_VIEW_OR_ENTITY, "Ltessar/kvo/server/TransactionEvent;", "tessar/kvo/server/EntityImpl",
     "mEbi,Ltessar/kvo/server/EntityDefImpl;|mObjName,Ljava/lang/String;", objQorJSPRequestData.qrfObjectName,
     sizeof objQorJSPRequestData.qrfObjectName},
    {LOCAL_EL_EXPRESSION, "Lcom/sun/el/ValueExpressionImpl;", "com/sun/el/ValueExpressionImpl",
     "expr,Ljava/lang/String;", objQorJSPRequestData.elExpression, sizeof objQorJSPRequestData.elExpression},
    {LOCAL_EL_EXPRESSION, "Lcom/sun/el/MethodExpressionImpl;", "com/sun/el/MethodExpressionImpl",
     "expr,Ljava/lang/String;", objQorJSPRequestData.elExpression, sizeof objQorJSPRequestData.elExpression},
    {LOCAL_GROOVY, UNWRAPPED_SITE,
     "org/codehaus/groovy/runtime/callsite/PogoMetaMethodSite$PogoMetaMethodSiteNoUnwrap",
     "name,Ljava/lang/String;", objQorJSPRequestData.groovyCurrentLine,
     sizeof objQorJSPRequestData.groovyCurrentLine},
    {LOCAL_GROOVY, CALL_SITE, "org/codehaus/groovy/runtime/callsite/AbstractCallSite",
     "name,Ljava/lang/String;", objQorJSPRequestData.groovyCurrentLine,
     sizeof objQorJSPRequestData.groovyCurrentLine},
};

// A call site with the array it stands in.
jobject makeSite(jobject sites, const std::string &name, int index) {
    jobject site = MakeObject("org/codehaus/groovy/runtime/callsite/AbstractCallSite");
    Plant(site, "name,Ljava/lang/String;", name);
    Plant(site, "index,I", std::to_string(index));
    PlantObject(site,
                "array,Lorg/codehaus/groovy/runtime/callsite/CallSiteArray;|"
                "array,[Lorg/codehaus/groovy/runtime/callsite/CallSite;",
                sites);
    return site;
}

jobjectArray makeSites(jsize count) {
    jclass klass = Env()->FindClass("org/codehaus/groovy/runtime/callsite/CallSite");
    return Env()->NewObjectArray(count, klass, nullptr);
}

void nameSite(jobjectArray sites, jsize index, const std::string &name) {
    QorLocalFrame references(Env(), 16);
    Env()->SetObjectArrayElement(sites, index, makeSite(nullptr, name, index));
}

} // namespace

TEST_F(Framework, ShowsTheNamesOfItsObjects) {
    for (const NamedObject &row : NAMED_OBJECTS)
        for (const std::string &value : TrialValues()) {
            QorLocalFrame references(Env(), 64);
            QorClearJSPRequestData(&record);
            jobject object = MakeObject(row.klass);
            Plant(object, row.path, value);
            read(row.kind, row.signature, object);
            EXPECT_EQ(row.field, Shown(value, row.size)) << row.signature;
            for (const char *field : {record.qrfObjectName, record.elExpression, record.groovyCurrentLine,
                                      record.groovyScript, record.requestUrl})
                EXPECT_TRUE(field == row.field || *field == 0) << row.signature;
        }
}

TEST_F(Framework, SaysWhatItMisses) {
    const struct {
        int32_t kind;
        const char *signature, *klass, *method;
        bool withObject;
        const char *missed;
    } ROWS[] = {
        {LOCAL_VIEW_OR_ENTITY, "Ltessar/kvo/server/ViewObjectImpl;", "", "", true, "qrfObj is NULL "},
        {LOCAL_VIEW_OR_ENTITY, "", "tessar.kvo.server.ViewRowImpl", "setAttribute", false,
         "qrf frame VO Obj is NULL "},
        {LOCAL_VIEW_OR_ENTITY, "", "tessar.kvo.server.EntityImpl", "doDML", false,
         "qrf frame EO Obj is NULL "},
        {LOCAL_EL_EXPRESSION, "", "", "", false, "QRF EL frame objLocal is NULL"},
        {LOCAL_EL_EXPRESSION, SCRIPT, "", "", true, "QRF EL frame objEL Obj is NULL"},
        {LOCAL_EL_EXPRESSION, "Lcom/sun/el/ValueExpressionImpl;", "", "", true, "EL Object is NULL"},
        {LOCAL_GROOVY, "", "tessar.kvo.ExprEval", "evaluate", false,
         "QRF Groovy frame objGroovy Obj is NULL"},
        {LOCAL_GROOVY, "", "app.Main", "call", false, "QRF Groovy frame Obj is NULL"},
        {LOCAL_GROOVY, SCRIPT, "", "", true, "Groovy Object is NULL"},
        {LOCAL_GROOVY, CALL_SITE, "", "", true, "QRF  Groovy groovyCurrLineOb is NULL"},
    };
    jobject plain = MakeObject("java/lang/Object");
    for (const auto &row : ROWS) {
        QorClearJSPRequestData(&record);
        LogCapture log(1);
        read(row.kind, row.signature, row.withObject ? plain : nullptr, row.klass, row.method);
        EXPECT_EQ(log.count(row.missed), 1) << row.missed << log.text();
        EXPECT_EQ(std::string(record.qrfObjectName) + record.elExpression + record.groovyCurrentLine +
                      record.groovyScript,
                  "");
    }
    // Entries of other kinds tell nothing, whatever their object is.
    LogCapture log(4);
    jobject view = MakeObject(NAMED_OBJECTS[0].klass);
    Plant(view, NAMED_OBJECTS[0].path, "Orders");
    read(LOCAL_DATABASE_CALL, NAMED_OBJECTS[0].signature, view);
    EXPECT_STREQ(record.qrfObjectName, "");
    EXPECT_EQ(log.text(), "");
}

TEST_F(Framework, NamesThePage) {
    const struct {
        const char *signature, *klass, *path;
    } ROWS[] = {
        {"Ltessar/qrfinternal/controller/state/ChildViewPortContextImpl;",
         "tessar/qrfinternal/controller/state/ChildViewPortContextImpl",
         "mParent,Ltessar/qrfinternal/controller/state/ViewPortContextImpl;|"
         "mCachedPhysicalUri,Ljava/lang/String;"},
        {"Lferrule/servlet/internal/RequestEventsFilter$EventsRequestWrapper;",
         "ferrule/servlet/internal/RequestEventsFilter$EventsRequestWrapper",
         "request,Ljavax/servlet/ServletRequest;=ferrule/servlet/internal/ServletRequestImpl|"
         "servletPath,Ljava/lang/String;"},
    };
    LogCapture log(3);
    for (const auto &row : ROWS) {
        for (const std::string &value : TrialValues()) {
            QorLocalFrame references(Env(), 64);
            jobject object = MakeObject(row.klass);
            Plant(object, row.path, value);
            EXPECT_EQ(pageName(row.signature, object),
                      value.empty() ? "as it was" : Shown(value, REQUEST_TEXT_SIZE));
            EXPECT_EQ(pageName(row.signature, object, LOCAL_DATABASE_CALL), "as it was");
        }
        EXPECT_EQ(pageName(row.signature, MakeObject("java/lang/Object")), "as it was");
    }
    EXPECT_EQ(log.count("qrf Obj is NULL "), 2);
    EXPECT_EQ(pageName("", nullptr), "as it was");
    EXPECT_EQ(log.count("qrf frame jspx Obj is NULL "), 1);
    EXPECT_EQ(pageName(SCRIPT, MakeObject("tessar/kvo/ExprEval")), "as it was");
}

// Its lines are counted later, so that their ends must stay.
TEST_F(Framework, KeepsTheScriptAsItIs) {
    std::string longScript;
    while (longScript.size() < 9000)
        longScript += "orders.each\n";
    for (const std::string &script : {std::string("a()\r\nb()\n"), longScript, std::string()}) {
        jobject evaluation = MakeObject("tessar/kvo/ExprEval");
        Plant(evaluation, "mExprStr,Ljava/lang/String;", script);
        read(LOCAL_GROOVY, SCRIPT, evaluation);
        EXPECT_EQ(record.groovyScript, script.substr(0, GROOVY_SCRIPT_SIZE - 1));
    }
}

TEST_F(Framework, ListsTheCallSites) {
    jobjectArray sites = makeSites(1200);
    for (jsize i = 0; i < 1200; i++)
        if (i != 3)
            nameSite(sites, i, "site" + std::to_string(i) + (i == 5 ? std::string(600, 'l') : ""));
    PlantObject(Env()->GetObjectArrayElement(sites, 4), "name,Ljava/lang/String;", nullptr);
    LogCapture log(1);
    read(LOCAL_GROOVY, CALL_SITE, makeSite(sites, "site7", 7));
    EXPECT_STREQ(record.groovyCurrentLine, "site7");
    EXPECT_EQ(record.groovyCurrentIndex, 7);
    ASSERT_EQ(record.groovyCallSiteCount, 998);
    EXPECT_STREQ(record.groovyCallSites[2], "site2");
    EXPECT_EQ(record.groovyCallSites[3], "site5" + std::string(506, 'l'));
    EXPECT_STREQ(record.groovyCallSites[997], "site999");
    EXPECT_EQ(log.count("QRF Groovy objArrayElement is NULL"), 1);
    EXPECT_EQ(log.count("QRF  Groovy objArrayElementID is NULL"), 1);

    QorClearJSPRequestData(&record);
    nameSite(sites, 3, "site3");
    nameSite(sites, 4, "site4");
    parseGroovyArray(sites, &record);
    ASSERT_EQ(record.groovyCallSiteCount, 1000);
    EXPECT_STREQ(record.groovyCallSites[999], "site999");

    QorClearJSPRequestData(&record);
    parseGroovyArray(makeSites(0), &record);
    EXPECT_EQ(record.groovyCallSiteCount, 0);
    EXPECT_EQ(log.count("QRF Groovy Array Length is 0"), 1);
    read(LOCAL_GROOVY, CALL_SITE, makeSite(nullptr, "alone", 0));
    EXPECT_EQ(log.count("QRF Groovy objGroovyArray is NULL"), 1);

    // An object that has a name and nothing else.
    QorClearJSPRequestData(&record);
    jobject named = MakeObject("java/lang/Thread");
    if (Env()->GetFieldID(Env()->GetObjectClass(named), "name", "Ljava/lang/String;")) {
        Plant(named, "name,Ljava/lang/String;", "thread");
        read(LOCAL_GROOVY, CALL_SITE, named);
        EXPECT_STREQ(record.groovyCurrentLine, "thread");
        EXPECT_EQ(record.groovyCurrentIndex, -1);
    }
    Env()->ExceptionClear();
}
