package com.sybase.jdbc3.jdbc;

/** What a statement holds of its connection. */
public class ProtocolContext {
    SybConnection _conn;

    public ProtocolContext(SybConnection connection) { _conn = connection; }
}
