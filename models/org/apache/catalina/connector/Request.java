package org.apache.catalina.connector;

import org.apache.tomcat.util.buf.MessageBytes;

public class Request {
    protected Object requestDispatcherPath;

    public Request(String path) { requestDispatcherPath = new MessageBytes(path); }
}
