package com.sybase.jdbc3.jdbc;

/** A connection. */
public class SybConnection {
    String _url;

    public SybConnection(String url) { _url = url; }
}
