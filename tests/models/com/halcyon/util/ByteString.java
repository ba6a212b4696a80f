package com.halcyon.util;

/** A range of a byte array. */
public class ByteString {
    protected byte[] data;
    protected int offset;
    protected int length;

    public ByteString(byte[] data, int offset, int length) {
        this.data = data;
        this.offset = offset;
        this.length = length;
    }
}
