package org.codehaus.groovy.runtime.callsite;

/** The call sites of a script, in the order of its text. */
public final class CallSiteArray {
    public final CallSite[] array;

    public CallSiteArray(String... names) {
        array = new CallSite[names.length];
        for (int i = 0; i < names.length; i++)
            array[i] = new AbstractCallSite(this, i, names[i]);
    }
}
