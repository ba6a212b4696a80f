package com.sybase.jdbc3.jdbc;

/** A statement with its text and its way to the connection. */
public class SybStatement {
    String _sqlStr;
    ProtocolContext _context;

    public SybStatement(SybConnection connection, String sql) {
        _sqlStr = sql;
        _context = new ProtocolContext(connection);
    }
}
