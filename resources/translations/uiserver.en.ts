<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="en" sourcelanguage="en">
<context>
    <name>CertListDialog</name>
    <message>
        <source>Form</source>
        <translation>Select Container</translation>
    </message>
    <message>
        <source>Please select the container to be overlapped:</source>
        <translation>Please select the container to overwrite:</translation>
    </message>
    <message>
        <source>Container name:</source>
        <translation>Container name:</translation>
    </message>
    <message>
        <source>OK</source>
        <translation>OK</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>Cancel</translation>
    </message>
</context>
<context>
    <name>FIFO_Service</name>
    <message>
        <source>USBKey password error</source>
        <translation>USBKey password error</translation>
    </message>
    <message>
        <source>Default PIN Is Forbidden</source>
        <translation>The default PIN is not allowed.</translation>
    </message>
    <message>
        <source>There are %1 times remaining</source>
        <translation>Attempts remaining: %1.</translation>
    </message>
</context>
<context>
    <name>MessageDialog</name>
    <message>
        <source>Title_Warning</source>
        <translation>Warning</translation>
    </message>
    <message>
        <source>PIN_Locked</source>
        <translation>The PIN is locked. Please ask your administrator to unblock it.</translation>
    </message>
    <message>
        <source>SPACE_FULL_Hint</source>
        <translation>The storage space of the USBKey is full.</translation>
    </message>
    <message>
        <source>Form</source>
        <translation>Message</translation>
    </message>
    <message>
        <source>Retry</source>
        <translation>Retry</translation>
    </message>
    <message>
        <source>OK</source>
        <translation>OK</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>Cancel</translation>
    </message>
</context>
<context>
    <name>PINDialog</name>
    <message>
        <source>Wrong PIN. %1</source>
        <translation>Wrong PIN. %1</translation>
    </message>
    <message>
        <source>Form</source>
        <translation>USBKey PIN</translation>
    </message>
    <message>
        <source>IDC_CUSTOM_PIN_ANNOTATION</source>
        <translation>Please enter a PIN of %1-%2 characters.</translation>
    </message>
    <message>
        <source>IDC_CUSTOM_PIN_ANNOTATION_2</source>
        <translation>The new PIN is too weak. Use at least two kinds of characters (lower-case letters, upper-case letters, digits, symbols) and avoid repeated or sequential characters.</translation>
    </message>
    <message>
        <source>comment_passwdinfo_verify</source>
        <translation>Please enter your USBKey PIN (%1-%2 characters).</translation>
    </message>
    <message>
        <source>Verify USBKey password</source>
        <translation>Verify USBKey password</translation>
    </message>
    <message>
        <source>Verify USBKey so password</source>
        <translation>Verify USBKey administrator password</translation>
    </message>
    <message>
        <source>Change USBKey password</source>
        <translation>Change USBKey password</translation>
    </message>
    <message>
        <source>Change USBKey so password</source>
        <translation>Change USBKey administrator password</translation>
    </message>
    <message>
        <source>Unblock USBKey password</source>
        <translation>Unblock USBKey password</translation>
    </message>
    <message>
        <source>Set USBKey password</source>
        <translation>Set USBKey password</translation>
    </message>
    <message>
        <source>Input User Pin:</source>
        <translation>User PIN:</translation>
    </message>
    <message>
        <source>Input Admin Pin:</source>
        <translation>Administrator PIN:</translation>
    </message>
    <message>
        <source>Old PIN:</source>
        <translation>Old PIN:</translation>
    </message>
    <message>
        <source>New PIN:</source>
        <translation>New PIN:</translation>
    </message>
    <message>
        <source>Confirm PIN:</source>
        <translation>Confirm PIN:</translation>
    </message>
    <message>
        <source>USBKey Passwd:</source>
        <translation>USBKey PIN:</translation>
    </message>
    <message>
        <source>Passwd Confirm:</source>
        <translation>Confirm PIN:</translation>
    </message>
    <message>
        <source>softkeyboard</source>
        <translation>Soft keyboard</translation>
    </message>
    <message>
        <source>OK</source>
        <translation>OK</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>Cancel</translation>
    </message>
    <message>
        <source>The password must be %1-%2 characters</source>
        <translation>The PIN must be %1-%2 characters long.</translation>
    </message>
    <message>
        <source>Pin:Weak</source>
        <translation>PIN strength: weak</translation>
    </message>
    <message>
        <source>Pin:Normal</source>
        <translation>PIN strength: medium</translation>
    </message>
    <message>
        <source>Pin:High</source>
        <translation>PIN strength: strong</translation>
    </message>
    <message>
        <source>Pin:Forbidden</source>
        <translation>PIN strength: not allowed</translation>
    </message>
    <message>
        <source>Please confirm that new USBKey password is entered identiacally!</source>
        <translation>The two new PINs do not match. Please enter them again.</translation>
    </message>
</context>
<context>
    <name>SimpleSoftKeyboard</name>
    <message>
        <source>Form</source>
        <translation>Soft keyboard</translation>
    </message>
    <message>
        <source>shift</source>
        <translation>Shift</translation>
    </message>
    <message>
        <source>&lt;-</source>
        <translation>&lt;-</translation>
    </message>
    <message>
        <source>0</source>
        <translation>0</translation>
    </message>
    <message>
        <source>a</source>
        <translation>a</translation>
    </message>
</context>
<context>
    <name>SoftKeyboard</name>
    <message>
        <source>Form</source>
        <translation>Soft keyboard</translation>
    </message>
    <message>
        <source>shift</source>
        <translation>Shift</translation>
    </message>
    <message>
        <source>space</source>
        <translation>Space</translation>
    </message>
    <message>
        <source>&lt;-</source>
        <translation>&lt;-</translation>
    </message>
    <message>
        <source>0</source>
        <translation>0</translation>
    </message>
    <message>
        <source>a</source>
        <translation>a</translation>
    </message>
    <message>
        <source>.</source>
        <translation>.</translation>
    </message>
</context>
<context>
    <name>WaitingDialog</name>
    <message>
        <source>Generate Key Pair</source>
        <translation>Generating Key Pair</translation>
    </message>
    <message>
        <source>USBKey is generating key pair, please waiting...</source>
        <translation>The USBKey is generating a key pair, please wait...</translation>
    </message>
    <message>
        <source>Transmit Signature Data</source>
        <translation>Transmitting Signature Data</translation>
    </message>
    <message>
        <source>USBKey is Transmitting Signature Data, please waiting...</source>
        <translation>The USBKey is transmitting signature data, please wait...</translation>
    </message>
    <message>
        <source>Verify user pin</source>
        <translation>Verify user PIN</translation>
    </message>
    <message>
        <source>Change user pin</source>
        <translation>Change user PIN</translation>
    </message>
    <message>
        <source>Unlock pin</source>
        <translation>Unblock PIN</translation>
    </message>
    <message>
        <source>Trade Confirm</source>
        <translation>Confirm Transaction</translation>
    </message>
    <message>
        <source>You will do trade signature! Please check the data on the usbkey screen</source>
        <translation>You are about to sign a transaction. Please check the data on the USBKey screen.</translation>
    </message>
    <message>
        <source>You will restore UKey to default status</source>
        <translation>The USBKey will be restored to its factory settings</translation>
    </message>
    <message>
        <source>Verify admin pin</source>
        <translation>Verify administrator PIN</translation>
    </message>
    <message>
        <source>Change admin pin</source>
        <translation>Change administrator PIN</translation>
    </message>
    <message>
        <source>You will set the user pin</source>
        <translation>You are about to set the user PIN</translation>
    </message>
    <message>
        <source>Please press OK button on USBKey</source>
        <translation>Please press the OK button on the USBKey.</translation>
    </message>
    <message>
        <source>Unknown Type</source>
        <translation>Unknown Request</translation>
    </message>
    <message>
        <source>unknown request %1</source>
        <translation>Unknown request: %1</translation>
    </message>
    <message>
        <source>Please press OK button on USBKey in &lt;font color=&quot;red&quot;&gt;%1&lt;/font&gt; second(s)</source>
        <translation>Please press the OK button on the USBKey within &lt;font color=&quot;red&quot;&gt;%1&lt;/font&gt; second(s).</translation>
    </message>
</context>
</TS>
