<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_TW" sourcelanguage="en">
<context>
    <name>CertListDialog</name>
    <message>
        <source>Form</source>
        <translation>選擇容器</translation>
    </message>
    <message>
        <source>Please select the container to be overlapped:</source>
        <translation>請選擇要覆寫的容器：</translation>
    </message>
    <message>
        <source>Container name:</source>
        <translation>容器名稱：</translation>
    </message>
    <message>
        <source>OK</source>
        <translation>確定</translation>
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
        <translation>USBKey密碼錯誤</translation>
    </message>
    <message>
        <source>Default PIN Is Forbidden</source>
        <translation>禁止使用預設PIN碼。</translation>
    </message>
    <message>
        <source>There are %1 times remaining</source>
        <translation>還剩%1次嘗試機會。</translation>
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
        <translation>PIN碼已鎖定，請聯絡管理員解鎖。</translation>
    </message>
    <message>
        <source>SPACE_FULL_Hint</source>
        <translation>USBKey儲存空間已滿。</translation>
    </message>
    <message>
        <source>Form</source>
        <translation>提示</translation>
    </message>
    <message>
        <source>Retry</source>
        <translation>重試</translation>
    </message>
    <message>
        <source>OK</source>
        <translation>確定</translation>
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
        <translation>PIN碼錯誤。%1</translation>
    </message>
    <message>
        <source>Form</source>
        <translation>USBKey PIN碼</translation>
    </message>
    <message>
        <source>IDC_CUSTOM_PIN_ANNOTATION</source>
        <translation>請輸入%1-%2位的PIN碼。</translation>
    </message>
    <message>
        <source>IDC_CUSTOM_PIN_ANNOTATION_2</source>
        <translation>新PIN碼強度太弱。請至少組合使用小寫字母、大寫字母、數字、符號中的兩種，並避免重複或連續的字元。</translation>
    </message>
    <message>
        <source>comment_passwdinfo_verify</source>
        <translation>請輸入USBKey的PIN碼（%1-%2位）。</translation>
    </message>
    <message>
        <source>Verify USBKey password</source>
        <translation>驗證USBKey密碼</translation>
    </message>
    <message>
        <source>Verify USBKey so password</source>
        <translation>驗證USBKey管理員密碼</translation>
    </message>
    <message>
        <source>Change USBKey password</source>
        <translation>變更USBKey密碼</translation>
    </message>
    <message>
        <source>Change USBKey so password</source>
        <translation>變更USBKey管理員密碼</translation>
    </message>
    <message>
        <source>Unblock USBKey password</source>
        <translation>解除鎖定USBKey密碼</translation>
    </message>
    <message>
        <source>Set USBKey password</source>
        <translation>設定USBKey密碼</translation>
    </message>
    <message>
        <source>Input User Pin:</source>
        <translation>使用者PIN碼：</translation>
    </message>
    <message>
        <source>Input Admin Pin:</source>
        <translation>管理員PIN碼：</translation>
    </message>
    <message>
        <source>Old PIN:</source>
        <translation>舊PIN碼：</translation>
    </message>
    <message>
        <source>New PIN:</source>
        <translation>新PIN碼：</translation>
    </message>
    <message>
        <source>Confirm PIN:</source>
        <translation>確認PIN碼：</translation>
    </message>
    <message>
        <source>USBKey Passwd:</source>
        <translation>USBKey PIN碼：</translation>
    </message>
    <message>
        <source>Passwd Confirm:</source>
        <translation>確認PIN碼：</translation>
    </message>
    <message>
        <source>softkeyboard</source>
        <translation>螢幕小鍵盤</translation>
    </message>
    <message>
        <source>OK</source>
        <translation>確定</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>取消</translation>
    </message>
    <message>
        <source>The password must be %1-%2 characters</source>
        <translation>PIN碼長度必須為%1-%2位。</translation>
    </message>
    <message>
        <source>Pin:Weak</source>
        <translation>PIN碼強度：弱</translation>
    </message>
    <message>
        <source>Pin:Normal</source>
        <translation>PIN碼強度：中</translation>
    </message>
    <message>
        <source>Pin:High</source>
        <translation>PIN碼強度：強</translation>
    </message>
    <message>
        <source>Pin:Forbidden</source>
        <translation>PIN碼強度：不允許使用</translation>
    </message>
    <message>
        <source>Please confirm that new USBKey password is entered identiacally!</source>
        <translation>兩次輸入的新PIN碼不一致，請重新輸入。</translation>
    </message>
</context>
<context>
    <name>SimpleSoftKeyboard</name>
    <message>
        <source>Form</source>
        <translation>螢幕小鍵盤</translation>
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
        <translation>螢幕小鍵盤</translation>
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
        <translation>產生金鑰對</translation>
    </message>
    <message>
        <source>USBKey is generating key pair, please waiting...</source>
        <translation>USBKey正在產生金鑰對，請稍候...</translation>
    </message>
    <message>
        <source>Transmit Signature Data</source>
        <translation>傳輸簽章資料</translation>
    </message>
    <message>
        <source>USBKey is Transmitting Signature Data, please waiting...</source>
        <translation>USBKey正在傳輸簽章資料，請稍候...</translation>
    </message>
    <message>
        <source>Verify user pin</source>
        <translation>驗證使用者PIN碼</translation>
    </message>
    <message>
        <source>Change user pin</source>
        <translation>變更使用者PIN碼</translation>
    </message>
    <message>
        <source>Unlock pin</source>
        <translation>解除鎖定PIN碼</translation>
    </message>
    <message>
        <source>Trade Confirm</source>
        <translation>交易確認</translation>
    </message>
    <message>
        <source>You will do trade signature! Please check the data on the usbkey screen</source>
        <translation>您即將進行交易簽章，請核對USBKey螢幕上顯示的資料。</translation>
    </message>
    <message>
        <source>You will restore UKey to default status</source>
        <translation>即將把USBKey還原為原廠設定</translation>
    </message>
    <message>
        <source>Verify admin pin</source>
        <translation>驗證管理員PIN碼</translation>
    </message>
    <message>
        <source>Change admin pin</source>
        <translation>變更管理員PIN碼</translation>
    </message>
    <message>
        <source>You will set the user pin</source>
        <translation>即將設定使用者PIN碼</translation>
    </message>
    <message>
        <source>Please press OK button on USBKey</source>
        <translation>請按USBKey上的確認鍵。</translation>
    </message>
    <message>
        <source>Unknown Type</source>
        <translation>未知請求</translation>
    </message>
    <message>
        <source>unknown request %1</source>
        <translation>未知請求：%1</translation>
    </message>
    <message>
        <source>Please press OK button on USBKey in &lt;font color=&quot;red&quot;&gt;%1&lt;/font&gt; second(s)</source>
        <translation>請在&lt;font color=&quot;red&quot;&gt;%1&lt;/font&gt;秒內按USBKey上的確認鍵</translation>
    </message>
</context>
</TS>
