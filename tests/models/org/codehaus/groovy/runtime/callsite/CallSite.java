package org.codehaus.groovy.runtime.callsite;

public interface CallSite {
    void call(Runnable receiver);
}
