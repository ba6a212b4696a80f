// A page and classes as the enrichment of a sample needs them, with a class of the tests in Java's place.
#pragma once

#include "Replies.h"
#include "jvmti/JavaClasses.h"
#include "qorrequest.h"

#include <vector>

struct EnricherAsked {
    EnricherAsked() : savedPage(pagebuf) {
        pagebuf = page.data();
        e2eclass = Class("qoragent/testing/Enricher");
        jobjclass = Class("java/lang/Object");
        jstringclass = Class("java/lang/String");
        Java("Enricher", "answer", nullptr);
    }
    ~EnricherAsked() {
        for (jclass *klass : {&e2eclass, &jobjclass, &jstringclass}) {
            Env()->DeleteGlobalRef(*klass);
            *klass = nullptr;
        }
        pagebuf = savedPage;
    }

    static jclass Class(const char *name) {
        jclass local = Env()->FindClass(name);
        auto *global = static_cast<jclass>(Env()->NewGlobalRef(local));
        Env()->DeleteLocalRef(local);
        return global;
    }

    // What Java was asked with, "" when it wasn't.
    static std::string Asked() { return Java<std::string>("Enricher", "asked"); }

    std::vector<char> page = std::vector<char>(PAGEBUF_SIZE);
    char *savedPage;
};
