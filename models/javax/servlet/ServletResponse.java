package javax.servlet;

public interface ServletResponse {}
