package com.ibm.ws.webcontainer.webapp;

public class WebAppDispatcherContext {
    protected String _servletPath;

    public WebAppDispatcherContext(String path) { _servletPath = path; }
}
