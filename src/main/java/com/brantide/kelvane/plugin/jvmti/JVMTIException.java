package com.brantide.kelvane.plugin.jvmti;

/** A JVMTI call made for the caller failed; the message is the JVMTI error's name. */
public class JVMTIException extends RuntimeException {
    private static final long serialVersionUID = 1L;

    private final int errorCode;

    public JVMTIException(int errorCode, String message) {
        super(message);
        this.errorCode = errorCode;
    }

    public int getErrorCode() {
        return errorCode;
    }

    /** The JVMTI error name, such as JVMTI_ERROR_INVALID_THREAD. */
    public String getErrorName() {
        return getMessage();
    }
}
