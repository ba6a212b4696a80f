package org.apache.catalina.connector;

import javax.servlet.http.HttpServletRequest;

public class RequestFacade implements HttpServletRequest {
    protected Request request;

    public RequestFacade(String path) { request = new Request(path); }
}
