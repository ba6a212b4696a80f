package org.codehaus.groovy.runtime.callsite;

public class PogoMetaMethodSite extends AbstractCallSite {
    public PogoMetaMethodSite(CallSiteArray array, int index, String name) { super(array, index, name); }

    public static class PogoMetaMethodSiteNoUnwrap extends PogoMetaMethodSite {
        public PogoMetaMethodSiteNoUnwrap(CallSiteArray array, int index, String name) {
            super(array, index, name);
        }
    }
}
