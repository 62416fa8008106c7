package com.brantide.kelvane.plugin.jvmti;

/** The agent lacks the capability a call needs (error 99): switch it on with setActive(true). */
public class JVMTICapabilityException extends JVMTIException {
    private static final long serialVersionUID = 1L;

    public JVMTICapabilityException(int errorCode, String message) {
        super(errorCode, message);
    }
}
