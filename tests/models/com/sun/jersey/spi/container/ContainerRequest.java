package com.sun.jersey.spi.container;

import java.net.URI;

public class ContainerRequest {
    private final String method;
    private final URI requestUri;

    public ContainerRequest(String method, URI uri) {
        this.method = method;
        requestUri = uri;
    }

    @Override
    public String toString() {
        return method + " " + requestUri;
    }
}
