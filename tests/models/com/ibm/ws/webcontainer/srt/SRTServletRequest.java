package com.ibm.ws.webcontainer.srt;

import com.ibm.ws.webcontainer.webapp.WebAppDispatcherContext;
import javax.servlet.http.HttpServletRequest;

public class SRTServletRequest implements HttpServletRequest {
    protected WebAppDispatcherContext _dispatchContext;

    public SRTServletRequest(String path) { _dispatchContext = new WebAppDispatcherContext(path); }
}
