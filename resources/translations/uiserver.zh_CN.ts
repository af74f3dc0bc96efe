<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_CN" sourcelanguage="en">
<context>
    <name>CertListDialog</name>
    <message>
        <source>Form</source>
        <translation>选择容器</translation>
    </message>
    <message>
        <source>Please select the container to be overlapped:</source>
        <translation>请选择要覆盖的容器：</translation>
    </message>
    <message>
        <source>Container name:</source>
        <translation>容器名称：</translation>
    </message>
    <message>
        <source>OK</source>
        <translation>确定</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>取消</translation>
    </message>
</context>
<context>
    <name>FIFO_Service</name>
    <message>
        <source>USBKey password error</source>
        <translation>USBKey密码错误</translation>
    </message>
    <message>
        <source>Default PIN Is Forbidden</source>
        <translation>禁止使用默认PIN码。</translation>
    </message>
    <message>
        <source>There are %1 times remaining</source>
        <translation>还剩%1次尝试机会。</translation>
    </message>
</context>
<context>
    <name>MessageDialog</name>
    <message>
        <source>Title_Warning</source>
        <translation>警告</translation>
    </message>
    <message>
        <source>PIN_Locked</source>
        <translation>PIN码已锁定，请联系管理员解锁。</translation>
    </message>
    <message>
        <source>SPACE_FULL_Hint</source>
        <translation>USBKey存储空间已满。</translation>
    </message>
    <message>
        <source>Form</source>
        <translation>提示</translation>
    </message>
    <message>
        <source>Retry</source>
        <translation>重试</translation>
    </message>
    <message>
        <source>OK</source>
        <translation>确定</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>取消</translation>
    </message>
</context>
<context>
    <name>PINDialog</name>
    <message>
        <source>Wrong PIN. %1</source>
        <translation>PIN码错误。%1</translation>
    </message>
    <message>
        <source>Form</source>
        <translation>USBKey PIN码</translation>
    </message>
    <message>
        <source>IDC_CUSTOM_PIN_ANNOTATION</source>
        <translation>请输入%1-%2位的PIN码。</translation>
    </message>
    <message>
        <source>IDC_CUSTOM_PIN_ANNOTATION_2</source>
        <translation>新PIN码强度太弱。请至少组合使用小写字母、大写字母、数字、符号中的两种，并避免重复或连续的字符。</translation>
    </message>
    <message>
        <source>comment_passwdinfo_verify</source>
        <translation>请输入USBKey的PIN码（%1-%2位）。</translation>
    </message>
    <message>
        <source>Verify USBKey password</source>
        <translation>验证USBKey密码</translation>
    </message>
    <message>
        <source>Verify USBKey so password</source>
        <translation>验证USBKey管理员密码</translation>
    </message>
    <message>
        <source>Change USBKey password</source>
        <translation>修改USBKey密码</translation>
    </message>
    <message>
        <source>Change USBKey so password</source>
        <translation>修改USBKey管理员密码</translation>
    </message>
    <message>
        <source>Unblock USBKey password</source>
        <translation>解锁USBKey密码</translation>
    </message>
    <message>
        <source>Set USBKey password</source>
        <translation>设置USBKey密码</translation>
    </message>
    <message>
        <source>Input User Pin:</source>
        <translation>用户PIN码：</translation>
    </message>
    <message>
        <source>Input Admin Pin:</source>
        <translation>管理员PIN码：</translation>
    </message>
    <message>
        <source>Old PIN:</source>
        <translation>旧PIN码：</translation>
    </message>
    <message>
        <source>New PIN:</source>
        <translation>新PIN码：</translation>
    </message>
    <message>
        <source>Confirm PIN:</source>
        <translation>确认PIN码：</translation>
    </message>
    <message>
        <source>USBKey Passwd:</source>
        <translation>USBKey PIN码：</translation>
    </message>
    <message>
        <source>Passwd Confirm:</source>
        <translation>确认PIN码：</translation>
    </message>
    <message>
        <source>softkeyboard</source>
        <translation>软键盘</translation>
    </message>
    <message>
        <source>OK</source>
        <translation>确定</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>取消</translation>
    </message>
    <message>
        <source>The password must be %1-%2 characters</source>
        <translation>PIN码长度必须为%1-%2位。</translation>
    </message>
    <message>
        <source>Pin:Weak</source>
        <translation>PIN码强度：弱</translation>
    </message>
    <message>
        <source>Pin:Normal</source>
        <translation>PIN码强度：中</translation>
    </message>
    <message>
        <source>Pin:High</source>
        <translation>PIN码强度：强</translation>
    </message>
    <message>
        <source>Pin:Forbidden</source>
        <translation>PIN码强度：不允许使用</translation>
    </message>
    <message>
        <source>Please confirm that new USBKey password is entered identiacally!</source>
        <translation>两次输入的新PIN码不一致，请重新输入。</translation>
    </message>
</context>
<context>
    <name>SimpleSoftKeyboard</name>
    <message>
        <source>Form</source>
        <translation>软键盘</translation>
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
        <translation>软键盘</translation>
    </message>
    <message>
        <source>shift</source>
        <translation>Shift</translation>
    </message>
    <message>
        <source>space</source>
        <translation>空格</translation>
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
        <translation>生成密钥对</translation>
    </message>
    <message>
        <source>USBKey is generating key pair, please waiting...</source>
        <translation>USBKey正在生成密钥对，请稍候...</translation>
    </message>
    <message>
        <source>Transmit Signature Data</source>
        <translation>传输签名数据</translation>
    </message>
    <message>
        <source>USBKey is Transmitting Signature Data, please waiting...</source>
        <translation>USBKey正在传输签名数据，请稍候...</translation>
    </message>
    <message>
        <source>Verify user pin</source>
        <translation>验证用户PIN码</translation>
    </message>
    <message>
        <source>Change user pin</source>
        <translation>修改用户PIN码</translation>
    </message>
    <message>
        <source>Unlock pin</source>
        <translation>解锁PIN码</translation>
    </message>
    <message>
        <source>Trade Confirm</source>
        <translation>交易确认</translation>
    </message>
    <message>
        <source>You will do trade signature! Please check the data on the usbkey screen</source>
        <translation>您即将进行交易签名，请核对USBKey屏幕上显示的数据。</translation>
    </message>
    <message>
        <source>You will restore UKey to default status</source>
        <translation>即将把USBKey恢复为出厂状态</translation>
    </message>
    <message>
        <source>Verify admin pin</source>
        <translation>验证管理员PIN码</translation>
    </message>
    <message>
        <source>Change admin pin</source>
        <translation>修改管理员PIN码</translation>
    </message>
    <message>
        <source>You will set the user pin</source>
        <translation>即将设置用户PIN码</translation>
    </message>
    <message>
        <source>Please press OK button on USBKey</source>
        <translation>请按USBKey上的确认键。</translation>
    </message>
    <message>
        <source>Unknown Type</source>
        <translation>未知请求</translation>
    </message>
    <message>
        <source>unknown request %1</source>
        <translation>未知请求：%1</translation>
    </message>
    <message>
        <source>Please press OK button on USBKey in &lt;font color=&quot;red&quot;&gt;%1&lt;/font&gt; second(s)</source>
        <translation>请在&lt;font color=&quot;red&quot;&gt;%1&lt;/font&gt;秒内按USBKey上的确认键</translation>
    </message>
</context>
</TS>
