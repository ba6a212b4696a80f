package qoragent.testing;

import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.InputStream;

/** Defines its own copy of one class and leaves all others to the loader of that class. */
final class OwnCopyLoader extends ClassLoader {
    private final Class<?> original;

    OwnCopyLoader(Class<?> original) {
        super(original.getClassLoader());
        this.original = original;
    }

    @Override
    protected Class<?> loadClass(String name, boolean resolve) throws ClassNotFoundException {
        if (!name.equals(original.getName()))
            return super.loadClass(name, resolve);
        synchronized (getClassLoadingLock(name)) {
            Class<?> own = findLoadedClass(name);
            return own != null ? own : define(name);
        }
    }

    private Class<?> define(String name) throws ClassNotFoundException {
        try (InputStream in = getParent().getResourceAsStream(name.replace('.', '/') + ".class")) {
            ByteArrayOutputStream bytes = new ByteArrayOutputStream();
            byte[] chunk = new byte[4096];
            for (int n; (n = in.read(chunk)) > 0;)
                bytes.write(chunk, 0, n);
            return defineClass(name, bytes.toByteArray(), 0, bytes.size(), original.getProtectionDomain());
        } catch (IOException e) {
            throw new ClassNotFoundException(name, e);
        }
    }
}
