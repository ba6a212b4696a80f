package org.glassfish.jersey.server;

import java.net.URI;

public class ContainerRequest {
    private final String httpMethod;
    private final URI requestUri;

    public ContainerRequest(String method, URI uri) {
        httpMethod = method;
        requestUri = uri;
    }

    @Override
    public String toString() {
        return httpMethod + " " + requestUri;
    }
}
