package org.apache.tomcat.util.buf;

public final class MessageBytes {
    private final String strValue;

    public MessageBytes(String value) { strValue = value; }

    @Override
    public String toString() {
        return strValue;
    }
}
