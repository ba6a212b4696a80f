package com.halcyon.server.http;

import com.halcyon.util.ByteString;
import javax.servlet.http.HttpServletRequest;

public class HalcyonHttpServletRequest implements HttpServletRequest {
    protected ByteString servletPath;

    public HalcyonHttpServletRequest(ByteString path) { servletPath = path; }
}
