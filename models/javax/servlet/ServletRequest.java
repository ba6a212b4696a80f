package javax.servlet;

public interface ServletRequest {}
