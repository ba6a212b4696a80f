// A page and classes as the enrichment of a sample needs them, with a class of the tests in Java's place.
#pragma once

#include "Replies.h"
#include "jvmti/JavaClasses.h"
#include "qorrequest.h"

struct EnricherAsked {
    EnricherAsked() {
        pagebuf = page.data();
        e2eclass = Class("qoragent/testing/Enricher");
        jobjclass = Class("java/lang/Object");
        jstringclass = Class("java/lang/String");
        Java("Enricher", "answer", "null");
    }
    ~EnricherAsked() { e2eclass = nullptr; }

    static jclass Class(const char *name) {
        return static_cast<jclass>(Env()->NewGlobalRef(Env()->FindClass(name)));
    }

    // What Java was asked with, "" when it wasn't.
    static std::string Asked() { return Java<std::string>("Enricher", "asked"); }

    std::vector<char> page = std::vector<char>(PAGEBUF_SIZE);
};
