package com.brantide.kelvane.plugin.jvmti;

import java.lang.reflect.Constructor;
import java.lang.reflect.Executable;
import java.lang.reflect.Member;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.util.Objects;

/**
 * A method (or constructor, or static initializer) of a class and a bytecode index in it. The agent
 * finds the method by its class and member signature, the name followed by the JVM descriptor,
 * such as {@code main([Ljava/lang/String;)V} or {@code <init>(I)V}.
 */
public class BreakpointLocation {
    private final Class<?> memberClass;
    private final String memberSignature;
    private final Member member;
    /** The bytecode index; read by the agent under this name. */
    protected final long location;

    /** A location in a reflected method or constructor. */
    public BreakpointLocation(Member member, long location) {
        this.member = Objects.requireNonNull(member, "member");
        this.memberClass = member.getDeclaringClass();
        this.memberSignature = signatureOf(member);
        this.location = location;
    }

    /** A location in a member that has no reflected form, such as {@code <clinit>()V}. */
    public BreakpointLocation(Class<?> memberClass, String memberSignature, long location) {
        this.member = null;
        this.memberClass = memberClass;
        this.memberSignature = memberSignature;
        this.location = location;
    }

    public static BreakpointLocation forMethod(Method method, long location) {
        return new BreakpointLocation(method, location);
    }

    public static BreakpointLocation forConstructor(Constructor<?> constructor, long location) {
        return new BreakpointLocation(constructor, location);
    }

    public static BreakpointLocation forStaticInitializer(Class<?> clazz, long location) {
        return new BreakpointLocation(clazz, "<clinit>()V", location);
    }

    public Class<?> getMemberClass() {
        return memberClass;
    }

    public String getMemberSignature() {
        return memberSignature;
    }

    public long getLocation() {
        return location;
    }

    /** The reflected method or constructor, when the location was made from one. */
    public Member getMember() {
        return member;
    }

    /** The member's name: the signature up to its descriptor. */
    public String getMethodName() {
        if (memberSignature == null) {
            return null;
        }
        int paren = memberSignature.indexOf('(');
        return paren < 0 ? memberSignature : memberSignature.substring(0, paren);
    }

    /** The member signature of a method or constructor: its name followed by its JVM descriptor. */
    public static String signatureOf(Member member) {
        if (!(member instanceof Executable)) {
            throw new IllegalArgumentException("not a method or constructor: " + member);
        }
        Executable executable = (Executable) member;
        if (executable instanceof Constructor && Modifier.isStatic(executable.getModifiers())) {
            // The VM hands a static initializer over in reflected form as a static constructor.
            return "<clinit>()V";
        }
        StringBuilder signature = new StringBuilder();
        signature.append(executable instanceof Constructor ? "<init>" : executable.getName()).append('(');
        for (Class<?> parameter : executable.getParameterTypes()) {
            signature.append(parameter.descriptorString());
        }
        signature.append(')');
        Class<?> returns = executable instanceof Method ? ((Method) executable).getReturnType() : void.class;
        return signature.append(returns.descriptorString()).toString();
    }

    @Override
    public boolean equals(Object other) {
        if (!(other instanceof BreakpointLocation)) {
            return false;
        }
        BreakpointLocation that = (BreakpointLocation) other;
        return location == that.location && Objects.equals(memberClass, that.memberClass)
                && Objects.equals(memberSignature, that.memberSignature);
    }

    @Override
    public int hashCode() {
        return Objects.hash(memberClass, memberSignature, location);
    }

    @Override
    public String toString() {
        return (memberClass == null ? "?" : memberClass.getName()) + "." + memberSignature + "@" + location;
    }
}
