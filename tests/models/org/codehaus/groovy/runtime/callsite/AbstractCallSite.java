package org.codehaus.groovy.runtime.callsite;

import qoragent.models.Keep;

public class AbstractCallSite implements CallSite {
    protected final CallSiteArray array;
    protected final int index;
    protected final String name;

    public AbstractCallSite(CallSiteArray array, int index, String name) {
        this.array = array;
        this.index = index;
        this.name = name;
    }

    @Override
    public void call(Runnable receiver) {
        receiver.run();
        Keep.alive(this, receiver);
    }

    public void callCurrent(Runnable receiver) {
        receiver.run();
        Keep.alive(this, receiver);
    }
}
