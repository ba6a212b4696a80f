package org.apache.jserv;

import java.util.Hashtable;
import qoragent.models.Keep;

public class JServConnection implements Runnable {
    protected Hashtable<String, Object> env_vars = new Hashtable<>();
    private final Runnable servlet;

    public JServConnection(String uri, Runnable servlet) {
        env_vars.put("REQUEST_URI", uri);
        this.servlet = servlet;
    }

    @Override
    public void run() {
        servlet.run();
        Keep.alive(this);
    }
}
